// The text forms of a MAC.
#include "database/mac_text.h"

#include <cstdio>
#include <cstring>

#include "frame/console.h"

void change_mac_format(char *sta_mac, const char *calling_station_id)
{
    sta_mac[0] = '\0';
    size_t len = strlen(calling_station_id);
    if (len == 17) {
        for (size_t i = 0; i < 17; i++) {
            char c = calling_station_id[i];
            if ((c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || c == '-')
                sta_mac[i] = c;
            else if (c == ':')
                sta_mac[i] = '-';
            else if (c >= 'a' && c <= 'z')
                sta_mac[i] = static_cast<char>(c - 'a' + 'A');
            // Anything else writes nothing: the zero there ends the text.
        }
        sta_mac[17] = '\0';
    } else if (len == 12) {
        size_t o = 0;
        for (size_t i = 0; i < 12; i++) {
            if (i != 0 && i % 2 == 0)
                sta_mac[o++] = '-';
            char c = calling_station_id[i];
            sta_mac[o++] = (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c;
        }
        sta_mac[17] = '\0';
    } else {
        TRACE("unknow format !!!");
    }
}

void change_mac_to_rrm_format(char *dst_mac, const char *src_mac)
{
    size_t i = 0;
    do {
        char c = src_mac[i];
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
        else if (c == '-')
            c = ':';
        dst_mac[i] = c;
    } while (src_mac[i++] != '\0');
}

void mac_bytes_to_text(char text[MAC_TEXT_SIZE], const uint8_t *m)
{
    snprintf(text, MAC_TEXT_SIZE, "%02X-%02X-%02X-%02X-%02X-%02X", m[0], m[1], m[2], m[3], m[4], m[5]);
}
