/// Records what is not in force, for the platform's other services.
///
/// All functions must be called on the event loop's thread.
#ifndef LINUX_ENFORCEMENT_ENFORCEMENT_INTERNAL_H
#define LINUX_ENFORCEMENT_ENFORCEMENT_INTERNAL_H

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

#include "platform/enforcement.h"

struct enforcement_entry {
    std::string subject;
    std::string reason;
    time_t since = 0;  ///< when it was first reported
    uint64_t run = 0;  ///< the last comparison that reported it; 0 for none
};

/// What is not in force, in byte order of the subjects. Throws std::bad_alloc.
std::vector<enforcement_entry> enforcement_list();

/// Whether anything is not in force.
bool enforcement_any_failed();

/// Collects what is reported during its lifetime, for the answer to a change. Collectors may be nested.
class enforcement_collector {
  public:
    enforcement_collector();
    ~enforcement_collector();
    enforcement_collector(const enforcement_collector&) = delete;
    enforcement_collector& operator=(const enforcement_collector&) = delete;

    /// What was reported and not restored since, in the order of the first reports. Throws std::bad_alloc.
    std::vector<enforcement_entry> entries() const;

  private:
    friend struct enforcement_record;
    enforcement_collector* outer;
    std::vector<std::string> subjects;
};

/// Announces a commit, or an initial scan, to the agent: it begins with this object's lifetime and ends with it.
class enforcement_announced_commit {
  public:
    enforcement_announced_commit();
    ~enforcement_announced_commit();
    enforcement_announced_commit(const enforcement_announced_commit&) = delete;
    enforcement_announced_commit& operator=(const enforcement_announced_commit&) = delete;

  private:
    enforcement_commit_callbacks callbacks_;
    void* context_;
};

/// A difference between the configuration and the machine.
struct enforcement_difference {
    std::string subject;
    std::string text;
};

struct enforcement_comparison {
    int remaining = -1;  ///< number of remaining differences; -1 if they could not be compared
    std::vector<enforcement_difference> differences;  ///< all differences found, including those that were removed
};

/// Whether the agent has registered its comparison.
bool enforcement_can_compare();

/// Runs the agent's comparison and, if it repairs, updates the record of what is not in force. Does nothing without a
/// registration or from within a comparison. Throws std::bad_alloc.
///
/// `on_request`: an operator asks for the repair, which then also replaces what an administrator may have changed on
/// purpose.
enforcement_comparison enforcement_reconcile(bool repair, bool on_request = false);

/// A comparison that the platform itself makes, of what the agent does not know. It reports each difference to `sink`, and
/// what a repair could not put right through enforcement_failed. Returns how many remain. May throw std::bad_alloc.
using enforcement_check = int (*)(bool repair, enforcement_difference_sink sink, void* sink_context);

/// Has every comparison from now on include the check, before the agent's own and after those added before; or no longer.
void enforcement_add_check(enforcement_check check);
void enforcement_remove_check(enforcement_check check);

/// Registers `needed`, to be called when something is not in force that the agent can repair. `is_first` means that
/// everything was in force before. Null ends the registration.
void enforcement_on_failure(void (*needed)(bool is_first));

/// Clears everything, including the registration.
void enforcement_reset();

#endif
