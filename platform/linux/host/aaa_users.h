/// The AAA user list, /cfg/gl/aaa/username/: the machine's accounts that can log in.
///
/// An ordering index stands for each account (its number, with a suffix for a further name of the same account), and below
/// it the one name. What the machine's name service enumerates is listed, read anew when the indexes are.
#ifndef LINUX_HOST_AAA_USERS_H
#define LINUX_HOST_AAA_USERS_H

/// Lets the datastore serve the list.
void aaa_users_start();

/// Withdraws the list.
void aaa_users_stop();

#endif
