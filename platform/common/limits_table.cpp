#include "common/limits_table.h"

#include "common/text.h"

std::string limits_table_commands(uint32_t connections_per_minute, const std::string& ports) {
    const unsigned rate = connections_per_minute;
    return text_format(
        "table inet norvo_limits {\n"
        "    chain input {\n"
        "        type filter hook input priority 10; policy accept;\n"
        "        tcp dport { %s } tcp flags & (fin|syn|rst|ack) == syn"
        " limit rate over %u/minute burst %u packets counter reject with tcp reset\n"
        "    }\n"
        "}\n",
        ports.c_str(), rate, rate);
}
