/// Applies changes of the three items that decide in which VRFs a server runs.
#ifndef UNIT_VRF_APPLIERS_TEST_H
#define UNIT_VRF_APPLIERS_TEST_H

#include <cerrno>

#include "allocation_failure.h"
#include "platform/mpp.h"
#include "vrf/vrf_appliers.h"
#include "vrf_test.h"

inline constexpr uint32_t created = DATASTORE_EVENT_CREATE_OR_SET;
inline constexpr uint32_t changed = DATASTORE_EVENT_SET;
inline constexpr uint32_t deleted = DATASTORE_EVENT_DELETE;

inline constexpr char netconf_line[] = "Subsystem netconf /pkg/bin/netconf_sshd_proxy -i 0 -o 1\n";

/// The access lists of an item; null for one that is absent.
struct lists {
    const char* v4 = nullptr;
    const char* v6 = nullptr;
};

inline fake_platform::value packed(const lists& given) {
    fake_platform::field v4 = given.v4 != nullptr ? fake_platform::field(given.v4) : fake_platform::field();
    fake_platform::field v6 = given.v6 != nullptr ? fake_platform::field(given.v6) : fake_platform::field();
    return fake_platform::tuple_value("%d%S%S", {{}, v4, v6});
}

class vrf_appliers_test : public vrf_test {
  protected:
    using applier = platform_status (*)(const datastore_change*, const datastore_path_components*);

    static platform_status apply(applier handler, const char* item, const char* vrf, const datastore_change& change) {
        const char* const path[] = {"sshd", item, vrf};
        const datastore_path_components components = {path, 3};
        return handler(&change, &components);
    }

    static platform_status apply(applier handler, const char* item, const char* vrf, uint32_t event, const lists& given,
                                 bool had_value) {
        const fake_platform::value value = packed(given);
        const fake_platform::value old_value = packed({});
        datastore_change change = {event, nullptr, nullptr, 0, 0};
        if (event != deleted) {
            change.value = value.bytes.data();
            change.value_size = value.bytes.size();
        }
        if (had_value) {
            change.previous = old_value.bytes.data();
            change.previous_size = old_value.bytes.size();
        }
        return apply(handler, item, vrf, change);
    }

    static platform_status ssh(const char* vrf, uint32_t event, const lists& given = {}) {
        return apply(sshd_apply_vrf_func, "vrf", vrf, event, given, event != created);
    }

    static platform_status netconf(const char* vrf, uint32_t event, const lists& given = {}) {
        return apply(sshd_apply_conf_netconf_vrf, "vrf-netconf", vrf, event, given, event != created);
    }

    static platform_status protocol(uint32_t event) {
        const uint32_t on = 1;
        const datastore_change change = {event, event == created ? nullptr : &on, event == deleted ? nullptr : &on, 4,
                                         4};
        return sshd_apply_ver_func(&change, nullptr);
    }

    static std::string not_as_configured(const std::string& vrf, const std::string& reason = "Is a directory") {
        return "enforcement_failed(file " + server_file(vrf) + ", " + reason + ")";
    }

    static int count_of(const char* vrf) {
        const vrf_node* node = find_vrf_node(vrf);
        return node != nullptr ? node->reference_count : 0;
    }

    static std::string copy_for(const std::string& vrf) {
        return "$ cp /var/opt/norvo/norvossh/sshd_config " + server_file(vrf);
    }
};

#endif
