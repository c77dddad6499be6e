#pragma once

/// What the C library's time texts do on this thread while a test says so: they fail, which they
/// never do with the values of the tests.
struct TimeFaults {
    static thread_local bool localtimeFails;
    static thread_local bool strftimeFails;
};
