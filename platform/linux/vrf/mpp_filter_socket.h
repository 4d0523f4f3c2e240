/// Connection to the kernel's packet filter in another network namespace.
#ifndef LINUX_VRF_MPP_FILTER_SOCKET_H
#define LINUX_VRF_MPP_FILTER_SOCKET_H

#include <libmnl/libmnl.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

/// Changes that the kernel applies all together or not at all.
class filter_batch {
  public:
    filter_batch();
    filter_batch(const filter_batch&) = delete;
    filter_batch& operator=(const filter_batch&) = delete;

    /// Begins a message of the given type (NFT_MSG_) with further message flags (NLM_F_); its payload is then built
    /// behind the returned header.
    nlmsghdr* begin_message(uint16_t type, uint16_t flags = 0);

    /// Ends the message whose payload has been built.
    void end_message();

    /// Closes the batch and stores its length in bytes.
    const void* finish(size_t& size);

  private:
    char* position();

    std::vector<char> buffer;
    size_t used;
    uint32_t sequence;
};

/// A socket to the packet filter of one namespace. It keeps the namespace alive, so it is opened for one operation only.
class filter_connection {
  public:
    filter_connection() = default;
    ~filter_connection();
    filter_connection(const filter_connection&) = delete;
    filter_connection& operator=(const filter_connection&) = delete;

    /// Opens it to a VRF's namespace. Returns 0 or an errno value, ENOENT when there is no such namespace.
    int open_in_vrf(const std::string& vrf_name);

    /// Opens it to the process's own namespace. Returns 0 or an errno value.
    int open_here();

    /// Carries the batch out. Returns 0 or the kernel's first errno value.
    int transact(filter_batch& batch) const;

    /// Sends one request, which asks for an acknowledgement, and calls `note` (which may be null) for each message of the
    /// answer. Returns as transact.
    int ask(const nlmsghdr* request, mnl_cb_t note, void* data) const;

  private:
    int fd = -1;
};

#endif
