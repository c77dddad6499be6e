#pragma once

#include <string>

#include "CKivApp.h"

/// The application's paths, and its steps one by one.
struct CKivAppPeer {
    static const std::string& globalInfoFile(const CKivApp& app) { return app.m_globalInfoFile; }
    static const std::string& bootFile(const CKivApp& app) { return app.m_bootFile; }
    static const std::string& configFile(const CKivApp& app) { return app.m_configFile; }
    static const std::string& dbFile(const CKivApp& app) { return app.m_dbFile; }
    static const std::string& touDir(const CKivApp& app) { return app.m_touDir; }

    static bool parseBootFile(CKivApp& app, const char* path) { return app.ParseBootFile(path); }
    /// What the time manager's error callback does.
    static void askForPendingWork(const CKivApp& app) { app.askForPendingWork(); }
};
