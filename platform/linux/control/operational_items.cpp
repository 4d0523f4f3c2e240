#include "linux/control/operational_items.h"

#include <algorithm>

namespace {

constexpr operational_item operational_rows[] = {
    {"/oper/crypto-ssh/client/brief", "sessions of the SSH clients"},
    {"/oper/crypto-ssh/client/detail", "algorithms and key exchange of the SSH clients' sessions"},
    {"/oper/crypto-ssh/client/rekey", "rekeys of the SSH clients' sessions"},
    {"/oper/crypto-ssh/gl/server-params", "settings in force"},
    {"/oper/crypto-ssh/gl/session_xml/brief", "sessions of servers and clients: users, hosts and channels"},
    {"/oper/crypto-ssh/gl/session_xml/detail", "algorithms and key exchange of all sessions"},
    {"/oper/crypto-ssh/gl/session_xml/rekey", "rekeys of all sessions"},
    {"/oper/crypto-ssh/gl/sshddata/brief", "sessions of the SSH servers"},
    {"/oper/crypto-ssh/gl/sshddata/detail", "algorithms and key exchange of the SSH servers' sessions"},
    {"/oper/crypto-ssh/gl/sshddata/rekey", "rekeys of the SSH servers' sessions"},
    {"/oper/overlays/gl/crypto_ssh/openconfig-system", "state that telemetry publishes"},
};

static_assert(std::ranges::is_sorted(operational_rows, {}, &operational_item::path));

}  // namespace

std::span<const operational_item> control_operational_items() {
    return operational_rows;
}

std::vector<std::string> control_operational_meanings(std::string_view end) {
    end.remove_suffix(end.ends_with('/') ? 1 : 0);
    const std::string wanted = '/' + std::string(end);
    std::vector<std::string> paths;
    for (const operational_item& item : operational_rows) {
        if (!end.empty() && item.path.ends_with(wanted)) {
            paths.emplace_back(item.path);
        }
    }
    return paths;
}
