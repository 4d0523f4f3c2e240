#include "acl/list_verifier.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "acl/acl_family.h"
#include "acl/nft_files.h"
#include "acl/rule_matches.h"
#include "core/log.h"
#include "platform/mpp.h"

namespace {

/// A stream whose text stays in memory.
class text_stream {
  public:
    text_stream() : stream_(open_memstream(&text_, &size_)) {}
    text_stream(const text_stream&) = delete;
    text_stream& operator=(const text_stream&) = delete;
    ~text_stream() {
        if (stream_ != nullptr) {
            fclose(stream_);
        }
        free(text_);
    }

    FILE* stream() const { return stream_; }

    /// The text so far.
    std::string_view text() const {
        fflush(stream_);
        return {text_, size_};
    }

    /// Passes the text to the caller. Returns false if there was no memory for all of it.
    bool release(acl_list_rules* rules) {
        const bool had_error = ferror(stream_) != 0;
        const bool complete = fclose(stream_) == 0 && !had_error;
        stream_ = nullptr;
        if (complete) {
            rules->text = text_;
            rules->size = size_;
            text_ = nullptr;
        }
        return complete;
    }

  private:
    char* text_ = nullptr;
    size_t size_ = 0;
    FILE* stream_;
};

/// Only a condition "not equal" on the service's port makes a rule for other ports.
acl_entry_effect effect_of(std::string_view rule) {
    if (rule.empty()) {
        return ACL_ENTRY_IGNORED;
    }
    const bool closes = rule.find("tcp dport ne ") != rule.npos && rule.ends_with("drop \n");
    return closes ? ACL_ENTRY_CLOSES_OTHER_PORTS : ACL_ENTRY_MAKES_RULE;
}

}  // namespace

platform_status make_list_rules(uint32_t family, uint32_t service, const acl_list_entry* entries, size_t count,
                                acl_entry_rule* entry_rules, acl_list_rules* rules, void*) {
    const acl_family& row = family == ACL_FAMILY_IPV6 ? ipv6_acl_family : ipv4_acl_family;
    const uint32_t type = service == MPP_SERVICE_SSH ? row.ssh_type : row.netconf_type;
    text_stream text;
    if (text.stream() == nullptr) {
        return ENOMEM;
    }
    write_table_declaration(type, text.stream());
    write_table_header(type, text.stream());
    for (size_t i = 0; i < count; i++) {
        const size_t offset = text.text().size();
        const platform_status status = row.convert(entries[i].record, entries[i].size, text.stream(), type);
        if (status != PLATFORM_OK) {
            return status;
        }
        const std::string_view rule = text.text().substr(offset);
        entry_rules[i] = {effect_of(rule), offset, rule.size()};
    }
    ssh_nft_fp_close(type, text.stream());
    rules->compared_port = compared_port_of(type);
    return text.release(rules) ? platform_status{PLATFORM_OK} : platform_status{ENOMEM};
}

void register_acl_verifier() {
    const acl_verifier verifier = {make_list_rules};
    const platform_status status = acl_service_register_verifier(&verifier, nullptr);
    if (status != PLATFORM_OK) {
        log_status(ERR_ERRNO, status, "The verifier of access lists is not registered");
    }
}
