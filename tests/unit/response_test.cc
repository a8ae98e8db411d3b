// The response thread's handling of one datagram: matching by Identifier,
// verification, and what each status does to the node and its profile.
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

    // A response to the given request bytes, signed with secret.
    void answer(const std::vector<uint8_t> &request, const char *secret, uint8_t code = 5,
                size_t wire_len = 20)
    {
        std::vector<uint8_t> r(20, 0);
        r[0] = code;
        r[1] = request[1];
        r[2] = 0;
        r[3] = 20;
        memcpy(&r[4], &request[4], 16);
        r.insert(r.end(), secret, secret + strlen(secret));
        unsigned char digest[16];
        MD5_CTX ctx;
        pra_MD5Init(&ctx);
        pra_MD5Update(&ctx, r.data(), static_cast<unsigned>(r.size()));
        pra_MD5Final(digest, &ctx);
        memcpy(&r[4], digest, 16);
        memcpy(&rx, r.data(), wire_len);
        radius_response_input(&rx);
    }

    struct accounting_node *started_session(struct accounting_radius *r, int interim)
    {
        accounting_msg_t m = login("alice", "AA-BB-CC-DD-EE-01", r->interface, interim);
        struct accounting_node *n = add_new_node(&m, r, PROFILE_TYPE_NORMAL, 0);
        n->self->user->accounting_start = 1;
        inet_aton("192.0.2.10", &n->self->user->user_ip);
        send_accounting(n, ACCOUNTING_START);
        insert_node_to_queue(n, QUEUE_TYPE_REQUEST);
        return n;
    }
};

TEST_F(Response, StartAnsweredMovesToInterim)
{
    struct accounting_radius *r = make_profile("wlan-1-1", "127.0.0.1", "s3cret");
    struct accounting_node *n = started_session(r, 300);
    answer(testenv::sent.back().bytes, "s3cret");
    EXPECT_EQ(n->self->request, nullptr);
    EXPECT_EQ(n->self->report_time, testenv::now + 300);
    EXPECT_EQ(n->queue.prev, get_interim_queue_header(0));
    EXPECT_NE(console().find("Accounting Start. Username: alice, Server IP:127.0.0.1\n"),
              std::string::npos);
}

TEST_F(Response, RefusedDatagramsLeaveTheRequestWaiting)
{
    struct accounting_radius *r = make_profile("wlan-1-1", "127.0.0.1", "s3cret");
    struct accounting_node *n = started_session(r, 60);
    std::vector<uint8_t> req = testenv::sent.back().bytes;

    // A length beyond the receive buffer is a failed verification, not an over-read.
    memcpy(&rx, req.data(), 20);
    rx.length = htons(2000);
    radius_response_input(&rx);
    EXPECT_NE(n->self->request, nullptr);

    std::vector<uint8_t> other = req;
    other[1] ^= 0xff;
    answer(other, "s3cret");
    EXPECT_NE(console().find("does not match the request packet\n"), std::string::npos);
    EXPECT_NE(n->self->request, nullptr);

    // Still answerable afterwards.
    answer(req, "s3cret");
    EXPECT_EQ(n->self->request, nullptr);
}

TEST_F(Response, StopIsFinalAndASecondAnswerFindsNothing)
{
    struct accounting_radius *r = make_profile("wlan-1-1", "127.0.0.1", "k");
    struct accounting_node *n = started_session(r, 60);
    answer(testenv::sent.back().bytes, "k");
    send_accounting(n, ACCOUNTING_STOP);
    insert_node_to_queue(n, QUEUE_TYPE_REQUEST);
    std::vector<uint8_t> stop = testenv::sent.back().bytes;
    answer(stop, "k");
    EXPECT_TRUE(list_empty(&r->user_node_header));
    answer(stop, "k");
    EXPECT_NE(console().find("Accounting Fail!! Response packet ID"), std::string::npos);
}

}  // namespace
