// The service's one decision on who may use the local link.
//
// Root and the service's own user are always let in. Anyone else only when
// the settings allow it: "ulmar.systemrouter.pipe.allow.everyone" = 1 (any
// local user), a user listed in "ulmar.systemrouter.pipe.allow.users"
// (names or uids, comma-separated), or a member of a group listed in
// "ulmar.systemrouter.pipe.allow.groups" (by default "ulmarcomms", ignored
// while no such group exists). Membership is the primary group or a
// supplementary one, looked up when the peer connects, so a user added to the
// group is let in from its next connection without restarting the service.
//
// The same file holds the application's side: which users it believes to
// be its service ("ulmar.systemrouter.pipe.serviceuser").
#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

namespace UlmarCommsService {

class UserPolicy {
public:
    // The policy the settings describe, for a service run by serviceUser.
    static UserPolicy fromSettings(uid_t serviceUser);

    // Whether a peer of this uid (its primary gid, or -1 when not known)
    // may use the link.
    bool allows(uid_t uid, gid_t gid) const;

    uid_t serviceUser = 0;
    bool everyone = false;
    // Listed users: uids, and names resolved when asked.
    std::vector<std::string> users;
    // Listed groups, by name or gid.
    std::vector<std::string> groups;

private:
    bool listsUser(uid_t uid) const;
    bool inListedGroup(uid_t uid, gid_t gid) const;
};

// Resolves a user name or decimal uid; false when neither.
bool lookUpUser(const std::string& nameOrUid, uid_t& uid);

// Whether an application may believe a service run by serviceUid: root, the
// application's own user, or the user named by
// "ulmar.systemrouter.pipe.serviceuser".
bool isTrustedServiceUser(uid_t serviceUid);

} // namespace UlmarCommsService
