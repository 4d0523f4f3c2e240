/// Asks the launchers, and so sshd and ssh themselves, about the files that a rehearsal has changed.
#ifndef LINUX_REHEARSAL_FILE_JUDGEMENT_H
#define LINUX_REHEARSAL_FILE_JUDGEMENT_H

#include <string>
#include <vector>

#include "linux/datastore/rehearsal.h"
#include "linux/rehearsal/private_folders.h"

/// Has the changed server files judged, each content once, and the client's file. The default file, which no server uses, is
/// judged only if it is the only one. For a rejected file the machine's is judged as well, or the machine's default file if
/// the VRF has none. Meant for the rehearsing process: puts the files in place that it has judged. Stores in `problem` why
/// the launcher could not be asked. Throws std::bad_alloc, and std::system_error for what cannot be read.
std::vector<rehearsed_rejection> judge_files(const std::vector<private_change>& changes, const private_folders& folders,
                                             std::string& problem);

#endif
