#include "linux/access_lists/acl_warnings.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <map>
#include <variant>

#include "linux/access_lists/acl_entry_warnings.h"
#include "linux/access_lists/acl_service_internal.h"
#include "linux/access_lists/acl_values.h"
#include "linux/datastore/schema.h"
#include "linux/datastore/service_values.h"

namespace {

constexpr char protocol_item[] = "/cfg/gl/crypto/ssh/server/sshd/v2";
constexpr char default_vrf_item[] = "/cfg/gl/crypto/ssh/server/sshd/vrf/default";

struct item_tree {
    const char* name;
    std::string_view items;  ///< the path of a VRF's item, without the VRF's name
};

constexpr item_tree item_trees[] = {
    {"SSH", "/cfg/gl/crypto/ssh/server/sshd/vrf/"},
    {"NETCONF", "/cfg/gl/crypto/ssh/server/sshd/vrf-netconf/"},
};

struct item_list {
    const char* name;
    const char* article;
    uint32_t code;
    size_t field;  ///< of a VRF item
};

constexpr item_list item_lists[] = {{"IPv4", "an IPv4", ACL_FAMILY_IPV4, 1}, {"IPv6", "an IPv6", ACL_FAMILY_IPV6, 2}};

/// The names of a VRF item's lists by family; empty for none.
using list_names = std::array<std::string, std::size(item_lists)>;

const item_list& family_of(uint32_t code) {
    return item_lists[code == ACL_FAMILY_IPV6 ? 1 : 0];
}

const item_tree* find_service(std::string_view path) {
    const auto* found = std::find_if(std::begin(item_trees), std::end(item_trees),
                                     [path](const item_tree& row) { return path.starts_with(row.items); });
    return found != std::end(item_trees) ? found : nullptr;
}

list_names names_of(const datastore_value& value) {
    list_names names;
    const auto* fields = std::get_if<datastore_fields>(&value);
    for (size_t i = 0; fields != nullptr && i < names.size(); i++) {
        const size_t field = item_lists[i].field;
        const std::string* name = field < fields->size() && (*fields)[field].has_value()
                                      ? std::get_if<std::string>(&*(*fields)[field])
                                      : nullptr;
        names[i] = name != nullptr ? *name : "";
    }
    return names;
}

list_names names_of(const std::string& path, const std::optional<datastore_stored>& stored) {
    const schema_row* row = schema_find(path, nullptr);
    datastore_value value;
    const bool readable = stored.has_value() && row != nullptr && schema_load(*row, *stored, value) == PLATFORM_OK;
    return readable ? names_of(value) : list_names();
}

bool any_named(const list_names& names) {
    return std::any_of(names.begin(), names.end(), [](const std::string& name) { return !name.empty(); });
}

std::string list_text(const item_list& family, std::string_view name) {
    return std::string(family.name) + " access list " + std::string(name);
}

/// The beginning of a warning.
std::string place_of(const item_tree& service, std::string_view vrf) {
    return "VRF " + std::string(vrf) + ": " + service.name;
}

std::string open_port(const item_tree& service, std::string_view vrf, const item_list& family,
                      const std::string& reason) {
    return place_of(service, vrf) + " is open to every " + family.name + " source: " + reason;
}

/// A list that items name, or that a commit changes.
struct judged_list {
    std::string reason;  ///< why it restricts nobody; empty if it has entries
    std::vector<acl_stored_entry> entries;
    acl_users users;
};

using commit_items = std::vector<datastore_item_outcome>;

const datastore_item_outcome* find_item(const commit_items& items, std::string_view path) {
    const auto found = std::find_if(items.begin(), items.end(),
                                    [path](const datastore_item_outcome& item) { return item.path == path; });
    return found == items.end() ? nullptr : &*found;
}

/// Checks the items and the lists of a commit. Each list is read once, however many items name it.
class commit_judge {
  public:
    explicit commit_judge(const commit_items& items) : items_(items) {}

    void judge_item(const item_tree& service, std::string_view vrf, const list_names& names) {
        for (size_t i = 0; any_named(names) && i < names.size(); i++) {
            const std::string reason =
                names[i].empty() ? std::string("the item names only ") + item_lists[1 - i].article + " access list"
                                 : use(i, names[i], service, vrf).reason;
            if (!reason.empty()) {
                warnings.push_back(open_port(service, vrf, item_lists[i], reason));
            }
        }
    }

    /// Checks a list of the commit for the items that name it and that the commit does not contain.
    void judge_list(uint32_t code, const std::string& name) {
        const auto family = static_cast<size_t>(&family_of(code) - item_lists);
        find_list(family, name);
        for (const item_tree& service : item_trees) {
            datastore_visit(service.items, [&](const std::string& path, const datastore_value& value) {
                if (names_of(value)[family] == name && find_item(items_, path) == nullptr) {
                    const std::string vrf = path.substr(service.items.size());
                    const std::string& reason = use(family, name, service, vrf).reason;
                    if (!reason.empty()) {
                        warnings.push_back(open_port(service, vrf, item_lists[family], reason));
                    }
                }
                return true;
            });
        }
    }

    /// Checks the entries of all these lists.
    void end() {
        for (const auto& [key, list] : lists_) {
            const item_list& family = item_lists[key.first];
            const std::vector<std::string> more =
                acl_entry_warnings(family.code, list_text(family, key.second), list.entries, list.users);
            warnings.insert(warnings.end(), more.begin(), more.end());
        }
    }

    std::vector<std::string> warnings;

  private:
    judged_list& use(size_t family, const std::string& name, const item_tree& service, std::string_view vrf) {
        judged_list& list = find_list(family, name);
        list.users[&service - item_trees].emplace_back(vrf);
        return list;
    }

    judged_list& find_list(size_t family, const std::string& name) {
        const auto [place, is_new] = lists_.try_emplace({family, name});
        judged_list& list = place->second;
        if (is_new) {
            const platform_status status = read_list(item_lists[family].code, name, list.entries);
            if (status == DATASTORE_NO_SUCH_LIST) {
                list.reason = "there is no " + list_text(item_lists[family], name);
            } else if (status == PLATFORM_OK && list.entries.empty()) {
                list.reason = list_text(item_lists[family], name) + " is empty";
            }
        }
        return list;
    }

    /// Reads a list as the commit leaves it.
    platform_status read_list(uint32_t code, const std::string& name, std::vector<acl_stored_entry>& entries) const {
        const datastore_item_outcome* changed = find_item(items_, acl_list_path(code, name));
        if (changed == nullptr) {
            return acl_list_entries(code, name, entries);
        }
        return changed->value.has_value() ? acl_list_decode(changed->value->bytes, entries)
                                          : platform_status{DATASTORE_NO_SUCH_LIST};
    }

    const commit_items& items_;
    std::map<std::pair<size_t, std::string>, judged_list> lists_;
};

bool is_protocol_item_configured(const commit_items& items) {
    if (const datastore_item_outcome* item = find_item(items, protocol_item); item != nullptr) {
        return item->value.has_value();
    }
    datastore_value value;
    return datastore_get_value(protocol_item, value) == PLATFORM_OK;
}

void judge_outcome(commit_judge& judge, const datastore_item_outcome& item, const commit_items& items) {
    const item_tree* service = find_service(item.path);
    if (service == nullptr) {
        return;
    }
    const std::string_view vrf = std::string_view(item.path).substr(service->items.size());
    if (item.value.has_value()) {
        judge.judge_item(*service, vrf, names_of(item.path, item.value));
    } else if (item.path == default_vrf_item && any_named(names_of(item.path, item.previous)) &&
               is_protocol_item_configured(items)) {
        judge.warnings.push_back(place_of(*service, vrf) +
                                 " is open to every source: sshd/v2 keeps its server running, without access lists");
    }
}

}  // namespace

std::vector<std::string> acl_commit_warnings(const std::vector<datastore_item_outcome>& items) {
    commit_judge judge(items);
    for (const datastore_item_outcome& item : items) {
        uint32_t family = 0;
        if (acl_family_of_path(item.path, family)) {
            judge.judge_list(family, datastore_service_name(item.path));
        } else {
            judge_outcome(judge, item, items);
        }
    }
    judge.end();
    return std::move(judge.warnings);
}
