// What an answer does to a session node: the real binary cannot open
// sessions yet, so this is shown on the response handler itself.
#include <arpa/inet.h>

#include <cstring>
#include <vector>

#include "database/accounting_db_api.h"
#include "delivery/queues.h"
#include "radius/md5.h"
#include "radius/radius_send_recieve.h"
#include "test_support.h"

namespace {

class Response : public DbTest {
protected:
    AUTH_HDR rx{};  // the thread's receive buffer, kept across datagrams

    // An Accounting-Response to the given request bytes, signed with secret.
    void answer(const std::vector<uint8_t> &request, const char *secret)
    {
        std::vector<uint8_t> r = {5, request[1], 0, 20};
        r.insert(r.end(), request.begin() + 4, request.begin() + 20);
        r.insert(r.end(), secret, secret + strlen(secret));
        MD5_CTX ctx;
        pra_MD5Init(&ctx);
        pra_MD5Update(&ctx, r.data(), static_cast<unsigned>(r.size()));
        pra_MD5Final(&r[4], &ctx);
        memcpy(&rx, r.data(), 20);
        radius_response_input(&rx);
    }
};

TEST_F(Response, SessionAnswersMoveTheNodeOnAndEndIt)
{
    struct accounting_radius *r = make_profile("wlan-1-1", "127.0.0.1", "k");
    accounting_msg_t m = login("alice", "AA-BB-CC-DD-EE-01", "wlan-1-1", 300);
    struct accounting_node *n = add_new_node(&m, r, PROFILE_TYPE_NORMAL, 0);
    n->self->user->accounting_start = 1;
    send_accounting(n, ACCOUNTING_START);
    insert_node_to_queue(n, QUEUE_TYPE_REQUEST);

    answer(testenv::sent.back().bytes, "k");
    EXPECT_EQ(n->self->request, nullptr);  // the next Interim-Update is composed anew
    EXPECT_EQ(n->self->report_time, testenv::now + 300);
    EXPECT_EQ(n->queue.prev, get_interim_queue_header(0));
    EXPECT_NE(console().find("Accounting Start. Username: alice, Server IP:127.0.0.1\n"),
              std::string::npos);

    send_accounting(n, ACCOUNTING_STOP);
    insert_node_to_queue(n, QUEUE_TYPE_REQUEST);
    std::vector<uint8_t> stop = testenv::sent.back().bytes;
    answer(stop, "k");
    EXPECT_TRUE(list_empty(&r->user_node_header));
    answer(stop, "k");  // a second answer finds nothing
    EXPECT_NE(console().find("Accounting Fail!! Response packet ID"), std::string::npos);
}

}  // namespace
