#include "SqlResult.h"

#include <sqlite3.h>

namespace {

int primary(int code) {
    return code & 0xff;  // without what an extended code adds
}

}  // namespace

bool SqlResult::mayPass(int code) {
    switch (primary(code)) {
        case SQLITE_PERM:
        case SQLITE_BUSY:
        case SQLITE_LOCKED:
        case SQLITE_NOMEM:
        case SQLITE_READONLY:
        case SQLITE_IOERR:
        case SQLITE_CORRUPT:
        case SQLITE_FULL:
        case SQLITE_CANTOPEN:
        case SQLITE_PROTOCOL:
        case SQLITE_NOTADB:
            return true;
        default:
            return false;
    }
}

bool SqlResult::isDamage(int code) {
    return primary(code) == SQLITE_CORRUPT || primary(code) == SQLITE_NOTADB;
}

bool SqlResult::asksForAnotherConnection(int code) {
    switch (primary(code)) {
        case SQLITE_PERM:
        case SQLITE_READONLY:
        case SQLITE_IOERR:
        case SQLITE_CANTOPEN:
        case SQLITE_PROTOCOL:
            return true;
        default:
            return false;
    }
}
