// One open handle on a database file, used by one thread: the controller
// keeps one per thread and database name, and no lock guards it. Waiting on
// another connection is left to SQLite's busy timeout of 1 ms and to loops
// that try again every 20 microseconds, for as long as the database stays
// busy. Failures raise KRODatabaseException.
#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "KRODatabaseQuery.h"

struct sqlite3;

class KRODatabaseConnection {
public:
    explicit KRODatabaseConnection(const std::filesystem::path& URL);
    KRODatabaseConnection(const KRODatabaseConnection&) = delete;
    KRODatabaseConnection& operator=(const KRODatabaseConnection&) = delete;
    ~KRODatabaseConnection();

    // Prepared and kept until finishedWithQuery.
    std::shared_ptr<KRODatabaseQuery> queryWithStatement(const std::string& statement);
    void finishedWithQuery(const std::shared_ptr<KRODatabaseQuery>& query);

    sqlite3* connection() const { return connection_; }

private:
    std::vector<std::shared_ptr<KRODatabaseQuery>> queries_;
    sqlite3* connection_ = nullptr;
};
