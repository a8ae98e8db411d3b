// The owner of the requests in flight, as the RADIUS client knows it.
#include "radius/radius_send_recieve.h"

namespace {

const struct radius_client_ops *client_ops = nullptr;

}  // namespace

void radius_client_register(const struct radius_client_ops *ops)
{
    client_ops = ops;
}

const struct radius_client_ops *radius_client(void)
{
    return client_ops;
}
