// The local-link user policy. Names are resolved through the system's user
// and group databases at each decision (the r-variants, since decisions are
// made on several selector workers at once); nothing is cached, so the
// databases stay the one place that says who is in a group.
#include "service/userpolicy.h"

#include "core/address.h"
#include "core/core.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <grp.h>
#include <pwd.h>
#include <unistd.h>

using UlmarComms::Core;

namespace UlmarCommsService {

namespace {

// Buffer for the r-variants of the database calls.
constexpr size_t LookupBufferBytes = 16384;

bool parseId(const std::string& text, unsigned long& id)
{
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos)
        return false;
    errno = 0;
    id = std::strtoul(text.c_str(), nullptr, 10);
    return errno == 0 && id < UINT_MAX;
}

std::vector<std::string> listSetting(const char* key)
{
    std::vector<std::string> items;
    UlmarComms::splitOn(Core::instance()->stringOrDefault(key), ", \t", items);
    return items;
}

bool lookUpGroup(const std::string& nameOrGid, gid_t& gid, std::vector<std::string>* members)
{
    std::vector<char> buffer(LookupBufferBytes);
    group entry{};
    group* found = nullptr;
    unsigned long id = 0;
    if (parseId(nameOrGid, id))
        getgrgid_r(static_cast<gid_t>(id), &entry, buffer.data(), buffer.size(), &found);
    else
        getgrnam_r(nameOrGid.c_str(), &entry, buffer.data(), buffer.size(), &found);
    if (found == nullptr)
        return false;
    gid = found->gr_gid;
    if (members != nullptr) {
        for (char** member = found->gr_mem; member != nullptr && *member != nullptr; ++member)
            members->push_back(*member);
    }
    return true;
}

// The user's name and primary group; false when the uid has no entry.
bool userEntry(uid_t uid, std::string& name, gid_t& primary)
{
    std::vector<char> buffer(LookupBufferBytes);
    passwd entry{};
    passwd* found = nullptr;
    getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found);
    if (found == nullptr)
        return false;
    name = found->pw_name;
    primary = found->pw_gid;
    return true;
}

} // namespace

bool lookUpUser(const std::string& nameOrUid, uid_t& uid)
{
    unsigned long id = 0;
    if (parseId(nameOrUid, id)) {
        uid = static_cast<uid_t>(id);
        return true;
    }
    std::vector<char> buffer(LookupBufferBytes);
    passwd entry{};
    passwd* found = nullptr;
    getpwnam_r(nameOrUid.c_str(), &entry, buffer.data(), buffer.size(), &found);
    if (found == nullptr)
        return false;
    uid = found->pw_uid;
    return true;
}

UserPolicy UserPolicy::fromSettings(uid_t serviceUser)
{
    UserPolicy policy;
    policy.serviceUser = serviceUser;
    policy.everyone = Core::instance()->numberOrDefault("ulmar.systemrouter.pipe.allow.everyone") != 0;
    policy.users = listSetting("ulmar.systemrouter.pipe.allow.users");
    policy.groups = listSetting("ulmar.systemrouter.pipe.allow.groups");
    return policy;
}

bool UserPolicy::allows(uid_t uid, gid_t gid) const
{
    if (uid == 0 || uid == serviceUser || everyone)
        return true;
    return listsUser(uid) || inListedGroup(uid, gid);
}

bool UserPolicy::listsUser(uid_t uid) const
{
    for (const std::string& user : users) {
        uid_t listed = 0;
        if (lookUpUser(user, listed) && listed == uid)
            return true;
    }
    return false;
}

bool UserPolicy::inListedGroup(uid_t uid, gid_t gid) const
{
    if (groups.empty())
        return false;
    std::string name;
    gid_t primary = static_cast<gid_t>(-1);
    const bool known = userEntry(uid, name, primary);
    std::vector<gid_t> memberOf;
    if (gid != static_cast<gid_t>(-1))
        memberOf.push_back(gid);
    if (known) {
        memberOf.push_back(primary);
        int count = 64;
        std::vector<gid_t> supplementary(static_cast<size_t>(count));
        if (getgrouplist(name.c_str(), primary, supplementary.data(), &count) < 0 && count > 0) {
            supplementary.resize(static_cast<size_t>(count));
            getgrouplist(name.c_str(), primary, supplementary.data(), &count);
        }
        supplementary.resize(static_cast<size_t>(count > 0 ? count : 0));
        memberOf.insert(memberOf.end(), supplementary.begin(), supplementary.end());
    }
    for (const std::string& listed : groups) {
        gid_t groupId = 0;
        std::vector<std::string> members;
        if (!lookUpGroup(listed, groupId, &members))
            continue;
        for (gid_t held : memberOf) {
            if (held == groupId)
                return true;
        }
        for (const std::string& member : members) {
            if (known && member == name)
                return true;
        }
    }
    return false;
}

bool isTrustedServiceUser(uid_t serviceUid)
{
    if (serviceUid == 0 || serviceUid == geteuid())
        return true;
    uid_t named = 0;
    const std::string user = Core::instance()->stringOrDefault("ulmar.systemrouter.pipe.serviceuser");
    return !user.empty() && lookUpUser(user, named) && named == serviceUid;
}

} // namespace UlmarCommsService
