// The access point itself: its libraries define the device symbols of
// platform.h, so only what differs from the simulation is set here.
#include "platform/platform.h"

// The wireless driver's own netlink protocol, NETLINK_SARNET.
const int meterd_netlink_protocol = 18;
