#include "linux/packet_filter/table_dump.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <libnftnl/common.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <map>
#include <string_view>
#include <vector>

#include "linux/vrf/mpp_filter_socket.h"

namespace {

using name_map = std::map<std::string, std::string, std::less<>>;

/// Calls `take` with each attribute.
template <typename Take>
void for_each_attribute(const void* first, int size, const Take& take) {
    for (const auto* each = static_cast<const nlattr*>(first); mnl_attr_ok(each, size);) {
        take(*each);
        size -= MNL_ALIGN(each->nla_len);
        each = mnl_attr_next(each);
    }
}

template <typename Take>
void for_each_nested(const nlattr& parent, const Take& take) {
    for_each_attribute(mnl_attr_get_payload(&parent), mnl_attr_get_payload_len(&parent), take);
}

template <typename Take>
void for_each_in_message(const nlmsghdr* header, const Take& take) {
    constexpr size_t offset = MNL_ALIGN(sizeof(nfgenmsg));
    const auto* payload = static_cast<const char*>(mnl_nlmsg_get_payload(header));
    for_each_attribute(payload + offset, static_cast<int>(mnl_nlmsg_get_payload_len(header) - offset), take);
}

std::string_view payload_of(const nlattr& attribute) {
    return {static_cast<const char*>(mnl_attr_get_payload(&attribute)), mnl_attr_get_payload_len(&attribute)};
}

/// The text of an attribute, without its NUL.
std::string_view text_of(const nlattr& attribute) {
    const std::string_view payload = payload_of(attribute);
    return payload.substr(0, payload.find('\0'));
}

uint32_t number_of(const nlattr& attribute) {
    uint32_t number = 0;
    std::memcpy(&number, mnl_attr_get_payload(&attribute),
                std::min<size_t>(sizeof number, payload_of(attribute).size()));
    return ntohl(number);
}

/// Appends a value so that no two sequences of values look the same.
void append(std::string& contents, uint32_t type, std::string_view value) {
    contents.append(std::to_string(type)).append(":").append(std::to_string(value.size())).append(":").append(value);
}

/// One exchange with the kernel: the request, and what its answers are taken with.
class query {
  public:
    query(uint16_t type, uint8_t family, uint16_t flags)
        : header_(nftnl_nlmsg_build_hdr(request_.data(), type, family, flags | NLM_F_ACK, 0)) {}

    query& with(uint16_t attribute, const char* text) {
        mnl_attr_put_strz(header_, attribute, text);
        return *this;
    }

    template <typename Take>
    int run(const filter_connection& connection, const Take& take) const {
        const auto call = [](const nlmsghdr* header, void* data) {
            (*static_cast<const Take*>(data))(header);
            return MNL_CB_OK;
        };
        return connection.ask(header_, call, const_cast<Take*>(&take));
    }

  private:
    alignas(nlmsghdr) std::array<char, 512> request_ = {};
    nlmsghdr* header_;
};

/// Reads one table.
class table_reader {
  public:
    table_reader(uint8_t family, const char* table, table_dump& dump) : family_(family), table_(table), dump_(dump) {}

    int read() {
        int error = connection_.open_here();
        if (error == 0) {
            error = read_table();
        }
        if (error != 0 || !dump_.exists) {
            return error == ENOENT ? 0 : error;
        }
        error = read_chains();
        if (error == 0) {
            error = read_sets();
        }
        return error == 0 ? read_rules() : error;
    }

  private:
    int read_table() {
        return query(NFT_MSG_GETTABLE, family_, 0)
            .with(NFTA_TABLE_NAME, table_)
            .run(connection_, [this](const nlmsghdr* header) {
                dump_.exists = true;
                for_each_in_message(header, [this](const nlattr& each) {
                    const uint16_t type = mnl_attr_get_type(&each);
                    if (type == NFTA_TABLE_FLAGS || type == NFTA_TABLE_USERDATA) {
                        append(dump_.contents, type, payload_of(each));
                    }
                });
            });
    }

    void take_chain(const nlmsghdr* header, name_map& chains) {
        std::string name;
        std::string contents;
        bool is_ours = false;
        bool drops = false;
        for_each_in_message(header, [&](const nlattr& each) {
            const uint16_t type = mnl_attr_get_type(&each);
            if (type == NFTA_CHAIN_TABLE) {
                is_ours = text_of(each) == table_;
            } else if (type == NFTA_CHAIN_NAME) {
                name = text_of(each);
            } else if (type == NFTA_CHAIN_HOOK || type == NFTA_CHAIN_TYPE || type == NFTA_CHAIN_FLAGS) {
                append(contents, type, payload_of(each));
            } else if (type == NFTA_CHAIN_POLICY) {
                drops = number_of(each) != NF_ACCEPT;
                append(contents, type, payload_of(each));
            }
        });
        if (is_ours) {
            dump_.lets_pass = dump_.lets_pass && !drops;
            chains[name] = contents;
        }
    }

    /// The kernel lists the chains of all tables.
    int read_chains() {
        name_map chains;
        const int error = query(NFT_MSG_GETCHAIN, family_, NLM_F_DUMP).run(connection_, [&](const nlmsghdr* header) {
            take_chain(header, chains);
        });
        for (const auto& [name, contents] : chains) {
            append(dump_.contents, NFTA_CHAIN_NAME, name);
            append(dump_.contents, NFTA_CHAIN_HOOK, contents);
        }
        return error;
    }

    struct set_row {
        std::string name;
        std::string contents;
        bool is_anonymous = false;
    };

    static set_row set_of(const nlmsghdr* header) {
        set_row set;
        for_each_in_message(header, [&set](const nlattr& each) {
            const uint16_t type = mnl_attr_get_type(&each);
            if (type == NFTA_SET_NAME) {
                set.name = text_of(each);
            } else if (type == NFTA_SET_FLAGS || type == NFTA_SET_KEY_TYPE || type == NFTA_SET_KEY_LEN) {
                set.is_anonymous |= type == NFTA_SET_FLAGS && (number_of(each) & NFT_SET_ANONYMOUS) != 0;
                append(set.contents, type, payload_of(each));
            }
        });
        return set;
    }

    /// The elements come in no particular order.
    int read_elements(set_row& set) {
        std::vector<std::string> elements;
        const int error = query(NFT_MSG_GETSETELEM, family_, NLM_F_DUMP)
                              .with(NFTA_SET_ELEM_LIST_TABLE, table_)
                              .with(NFTA_SET_ELEM_LIST_SET, set.name.c_str())
                              .run(connection_, [&elements](const nlmsghdr* header) {
                                  for_each_in_message(header, [&elements](const nlattr& list) {
                                      if (mnl_attr_get_type(&list) == NFTA_SET_ELEM_LIST_ELEMENTS) {
                                          for_each_nested(list, [&elements](const nlattr& each) {
                                              elements.emplace_back(payload_of(each));
                                          });
                                      }
                                  });
                              });
        std::ranges::sort(elements);
        for (const std::string& element : elements) {
            append(set.contents, NFTA_SET_ELEM_LIST_ELEMENTS, element);
        }
        return error;
    }

    /// A set with a name belongs to the table. One without is numbered by the kernel as it likes and belongs to its rule.
    int read_sets() {
        std::vector<set_row> sets;
        int error = query(NFT_MSG_GETSET, family_, NLM_F_DUMP)
                        .with(NFTA_SET_TABLE, table_)
                        .run(connection_, [&sets](const nlmsghdr* header) { sets.push_back(set_of(header)); });
        std::ranges::sort(sets, {}, &set_row::name);
        for (set_row& set : sets) {
            if (error == 0) {
                error = read_elements(set);
            }
            if (!set.is_anonymous) {
                append(dump_.contents, NFTA_SET_NAME, set.name);
                append(dump_.contents, NFTA_SET_ELEM_LIST_ELEMENTS, set.contents);
            } else {
                anonymous_sets_[set.name] = set.contents;
            }
        }
        return error;
    }

    void append_lookup(std::string& contents, const nlattr& data) const {
        for_each_nested(data, [&](const nlattr& each) {
            const uint16_t type = mnl_attr_get_type(&each);
            if (type == NFTA_LOOKUP_SET) {
                const auto set = anonymous_sets_.find(text_of(each));
                append(contents, type, set != anonymous_sets_.end() ? std::string_view(set->second) : text_of(each));
            } else if (type != NFTA_LOOKUP_SET_ID) {
                append(contents, type, payload_of(each));
            }
        });
    }

    void append_expression(std::string& contents, const nlattr& expression) const {
        std::string_view name;
        for_each_nested(expression, [&](const nlattr& each) {
            if (mnl_attr_get_type(&each) == NFTA_EXPR_NAME) {
                name = text_of(each);
                append(contents, NFTA_EXPR_NAME, name);
            } else if (mnl_attr_get_type(&each) == NFTA_EXPR_DATA && name == "lookup") {
                append_lookup(contents, each);
            } else if (mnl_attr_get_type(&each) == NFTA_EXPR_DATA && name != "counter") {
                append(contents, NFTA_EXPR_DATA, payload_of(each));
            }
        });
    }

    void take_rule(const nlmsghdr* header, std::vector<std::pair<std::string, std::string>>& rules) const {
        std::string chain;
        std::string contents;
        for_each_in_message(header, [&](const nlattr& each) {
            const uint16_t type = mnl_attr_get_type(&each);
            if (type == NFTA_RULE_CHAIN) {
                chain = text_of(each);
            } else if (type == NFTA_RULE_EXPRESSIONS) {
                for_each_nested(each, [&](const nlattr& expression) { append_expression(contents, expression); });
            }
        });
        rules.emplace_back(std::move(chain), std::move(contents));
    }

    int read_rules() {
        std::vector<std::pair<std::string, std::string>> rules;
        const int error = query(NFT_MSG_GETRULE, family_, NLM_F_DUMP)
                              .with(NFTA_RULE_TABLE, table_)
                              .run(connection_, [&](const nlmsghdr* header) { take_rule(header, rules); });
        std::ranges::stable_sort(rules, {}, [](const auto& rule) { return rule.first; });
        for (const auto& [chain, contents] : rules) {
            append(dump_.contents, NFTA_RULE_CHAIN, chain);
            append(dump_.contents, NFTA_RULE_EXPRESSIONS, contents);
        }
        dump_.rules = static_cast<uint32_t>(rules.size());
        dump_.lets_pass = dump_.lets_pass && rules.empty();
        return error;
    }

    uint8_t family_;
    const char* table_;
    table_dump& dump_;
    filter_connection connection_;
    name_map anonymous_sets_;
};

}  // namespace

int table_dump_read(uint8_t family, const char* table, table_dump& dump) {
    dump = {};
    return table_reader(family, table, dump).read();
}
