// The portal user table: who is logged in at the portal, by MAC and SSID
// profile, whether or not a session runs for them. Cloud mode only.
#include <cstring>

#include "database/accounting_db_api.h"
#include "frame/console.h"
#include "frame/meterd.h"

struct hash_table mac_hash_table[MAC_HASH_SIZE];

int hash_func(const char *mac)
{
    size_t len = strlen(mac);
    int32_t sum = 0;
    if (len == 17) {
        for (size_t i = 0; i < 17; i++)
            if (mac[i] != ':' && mac[i] != '-')
                sum += static_cast<signed char>(mac[i]);
    } else if (len == 12) {
        for (size_t i = 0; i < 12; i++)
            sum += static_cast<signed char>(mac[i]);
    } else {
        TRACE("unknow format !!!! , add hash_table_index[0]\n");
        return 0;
    }
    int index = sum % MAC_HASH_SIZE;
    // Bytes of 0x80 and above can make the sum negative; fold it back into
    // the table rather than index outside it.
    if (index < 0)
        index += MAC_HASH_SIZE;
    if (len == 17)
        TRACE("the mac is in mac_hash_table[%d] \n", index);
    else
        TRACE("hash_table_index = %d\n", index);
    return index;
}

int init_meterd_db(void)
{
    if (is_cloud)
        for (auto &bucket : mac_hash_table)
            INIT_LIST_HEAD(&bucket.head);
    return 0;
}
