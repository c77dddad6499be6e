#pragma once

#include <string>

#include <sys/types.h>

/// The message queue as it is now: whether it is there, how full, who may post. It neither reads
/// nor writes a message.
///
/// A value; looks when it is made.
struct QueueReader {
    explicit QueueReader(const std::string& name);

    /// Who may post by its mode, in words: "user root and group root".
    std::string posters() const;

    bool exists = false;
    bool known = false;    ///< the numbers below are
    bool mayPost = false;  ///< whoever runs this
    long depth = 0;        ///< messages that wait
    long most = 0;         ///< messages
    long size = 0;         ///< bytes of one message at most
    mode_t mode = 0;
    uid_t user = 0;
    gid_t group = 0;
};
