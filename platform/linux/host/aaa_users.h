/// The AAA user list, /cfg/gl/aaa/username/: the machine's accounts that can log in.
///
/// Each account has an ordering index (its number, with a suffix for a further name of the same account), below which
/// is its name. Lists what the machine's name service enumerates, rereading it whenever the indexes are read.
#ifndef LINUX_HOST_AAA_USERS_H
#define LINUX_HOST_AAA_USERS_H

/// Lets the datastore serve the list.
void aaa_users_start();

/// Withdraws the list.
void aaa_users_stop();

#endif
