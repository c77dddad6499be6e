#include "QueueReader.h"

#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <mqueue.h>
#include <pwd.h>
#include <sys/stat.h>

namespace {

std::string userName(uid_t user) {
    const passwd* entry = getpwuid(user);
    return entry == nullptr ? std::to_string(user) : entry->pw_name;
}

std::string groupName(gid_t id) {
    const struct group* entry = getgrgid(id);
    return entry == nullptr ? std::to_string(id) : entry->gr_name;
}

}  // namespace

QueueReader::QueueReader(const std::string& name) {
    mqd_t queue = mq_open(name.c_str(), O_WRONLY | O_NONBLOCK);
    mayPost = queue != -1;
    exists = mayPost || errno != ENOENT;
    if (!mayPost) queue = mq_open(name.c_str(), O_RDONLY | O_NONBLOCK);
    struct stat facts = {};
    if (queue == -1) {
        // Not ours to open: its face, where that file system is mounted.
        if (stat(("/dev/mqueue" + name).c_str(), &facts) != 0) return;
    } else {
        mq_attr attributes{};
        known = mq_getattr(queue, &attributes) == 0 && fstat(queue, &facts) == 0;
        depth = attributes.mq_curmsgs;
        most = attributes.mq_maxmsg;
        size = attributes.mq_msgsize;
        mq_close(queue);
    }
    mode = facts.st_mode & 07777;
    user = facts.st_uid;
    group = facts.st_gid;
}

std::string QueueReader::posters() const {
    if ((mode & S_IWOTH) != 0) return "everybody";
    std::string who;
    if ((mode & S_IWUSR) != 0) who = "user " + userName(user);
    if ((mode & S_IWGRP) == 0) return who.empty() ? "nobody but root" : who;
    return who + (who.empty() ? "" : " and ") + "group " + groupName(group);
}
