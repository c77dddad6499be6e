#include "DbgOut.h"

#include "KernelTime.h"

#include <iostream>

#include <cinttypes>
#include <cstdio>

#include <sys/syscall.h>
#include <unistd.h>

DbgOut coutdbg(std::cout);
DbgOut cerrdbg(std::cerr);

void DbgOut::PrintPrefix() {
    // A static initialiser of another file may write before this file's own have run.
    static const std::ios_base::Init standardStreams;

    // Formatted apart from the stream, whose flags (hex, width) may be set.
    char prefix[80];
    std::snprintf(prefix, sizeof prefix, "[%" PRId64 "](%ld,%ld) ",
                  KernelTime::getTimeMonotonicAsInt64(), static_cast<long>(::getpid()),
                  static_cast<long>(::syscall(SYS_gettid)));
    m_out << prefix;
}

std::ostream& operator<<(DbgOut& out, const char* text) {
    out.PrintPrefix();
    return out.m_out << (text != nullptr ? text : "");
}

std::ostream& operator<<(DbgOut& out, const std::string& text) {
    out.PrintPrefix();
    return out.m_out << text;
}
