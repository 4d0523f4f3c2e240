#include "linux/vrf/mpp_filter_socket.h"

#include <fcntl.h>
#include <libnftnl/common.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netlink.h>
#include <sched.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "common/file_descriptor.h"
#include "linux/reporting/log_message_internal.h"
#include "linux/vrf/namespace_watch.h"
#include "linux/vrf/vrf_table_internal.h"

namespace {

constexpr size_t batch_size_max = 8192;
constexpr size_t answer_size = 8192;

int open_socket() {
    const int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_NETFILTER);
    return fd < 0 ? -errno : fd;
}

/// In the wrong namespace the agent would configure the wrong VRF, so it cannot go on.
void return_to(int own_namespace) {
    if (setns(own_namespace, CLONE_NEWNET) != 0) {
        platform_log(LOG_CRIT, "Cannot return to the agent's own network namespace: %s", strerror(errno));
        abort();
    }
}

/// A socket belongs to the namespace in which it was created, so the process enters the namespace only for that moment.
/// Returns the socket or a negative errno value.
int open_socket_in(const std::string& namespace_name) {
    const std::string path = std::string(namespace_directory) + "/" + namespace_name;
    const file_descriptor own(open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC));
    if (own.get() < 0) {
        return -errno;
    }
    if (!namespace_is_attached(namespace_name)) {
        return -ENOENT;
    }
    const file_descriptor other(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (other.get() < 0 || setns(other.get(), CLONE_NEWNET) != 0) {
        return -errno;
    }
    const int fd = open_socket();
    return_to(own.get());
    return fd;
}

/// The kernel answers while the request is being sent, so there is nothing to wait for. The answer is a sequence of
/// messages, each with its own result; the first failure caused the others. Returns 0, an errno value, or -1 if there
/// was no answer.
int read_answer(int fd, mnl_cb_t note, void* data) {
    alignas(nlmsghdr) char buffer[answer_size];
    int first_error = -1;
    for (;;) {
        const ssize_t length = recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
        if (length < 0 && errno == EINTR) {
            continue;
        }
        if (length <= 0) {
            return first_error < 0 && errno != EAGAIN ? errno : first_error;
        }
        int left = static_cast<int>(length);
        for (auto* header = reinterpret_cast<nlmsghdr*>(buffer); mnl_nlmsg_ok(header, left);
             header = mnl_nlmsg_next(header, &left)) {
            int error = 0;
            if (header->nlmsg_type == NLMSG_ERROR) {
                error = -static_cast<const nlmsgerr*>(mnl_nlmsg_get_payload(header))->error;
            } else if (header->nlmsg_type != NLMSG_DONE && note != nullptr && note(header, data) == MNL_CB_ERROR) {
                error = EBADMSG;
            }
            first_error = first_error <= 0 ? error : first_error;
        }
    }
}

int exchange(int fd, const void* request, size_t size, mnl_cb_t note, void* data) {
    sockaddr_nl kernel = {};
    kernel.nl_family = AF_NETLINK;
    if (sendto(fd, request, size, 0, reinterpret_cast<const sockaddr*>(&kernel), sizeof kernel) < 0) {
        return errno;
    }
    const int result = read_answer(fd, note, data);
    return result < 0 ? EIO : result;
}

}  // namespace

filter_batch::filter_batch() : buffer(batch_size_max), used(0), sequence(0) {
    used += nftnl_batch_begin(position(), sequence++)->nlmsg_len;
}

char* filter_batch::position() {
    return buffer.data() + used;
}

nlmsghdr* filter_batch::begin_message(uint16_t type, uint16_t flags) {
    const uint16_t create = type == NFT_MSG_DELTABLE || type == NFT_MSG_DELSETELEM ? 0 : NLM_F_CREATE;
    return nftnl_nlmsg_build_hdr(position(), type, NFPROTO_INET, create | NLM_F_ACK | flags, sequence++);
}

void filter_batch::end_message() {
    used += MNL_ALIGN(reinterpret_cast<const nlmsghdr*>(position())->nlmsg_len);
}

const void* filter_batch::finish(size_t& size) {
    used += nftnl_batch_end(position(), sequence++)->nlmsg_len;
    size = used;
    return buffer.data();
}

filter_connection::~filter_connection() {
    if (fd >= 0) {
        close(fd);
    }
}

int filter_connection::open_in_vrf(const std::string& vrf_name) {
    fd = open_socket_in(namespace_name_prefix + vrf_name);
    return fd < 0 ? -fd : 0;
}

int filter_connection::open_here() {
    fd = open_socket();
    return fd < 0 ? -fd : 0;
}

int filter_connection::transact(filter_batch& batch) const {
    size_t size = 0;
    const void* request = batch.finish(size);
    return exchange(fd, request, size, nullptr, nullptr);
}

int filter_connection::ask(const nlmsghdr* request, mnl_cb_t note, void* data) const {
    return exchange(fd, request, request->nlmsg_len, note, data);
}
