// The text forms of a MAC. Every comparison of MACs is made on the
// canonical text AA-BB-CC-DD-EE-FF.
#ifndef METERD_DATABASE_MAC_TEXT_H
#define METERD_DATABASE_MAC_TEXT_H

#include <cstdint>

enum { MAC_TEXT_SIZE = 18 };

// Canonical text of a 17- or 12-character MAC; empty for any other length.
// sta_mac has 18 bytes.
void change_mac_format(char *sta_mac, const char *calling_station_id);
// aa:bb:cc:dd:ee:ff form of a canonical text; dst_mac holds all of src_mac.
void change_mac_to_rrm_format(char *dst_mac, const char *src_mac);
// Canonical text of six bytes as a driver or the wireless HAL sends them.
void mac_bytes_to_text(char text[MAC_TEXT_SIZE], const uint8_t *mac);

#endif
