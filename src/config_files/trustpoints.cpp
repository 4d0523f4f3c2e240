#include "config_files/trustpoints.h"

#include "config_files/name_list.h"

char host_trustpoint[trustpoint_size];
char user_trustpoints[user_trustpoint_max][trustpoint_size];
uint32_t user_trustpoint_count;

bool join_user_trustpoints(char* text, size_t size) {
    bool whole = true;
    text[0] = '\0';
    for (uint32_t slot = 0; slot < user_trustpoint_count; slot++) {
        whole = append_name(text, size, user_trustpoints[slot]) && whole;
    }
    return whole;
}
