#include "KRODatabaseConnection.h"

#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>

#include "KRODatabaseException.h"

KRODatabaseConnection::KRODatabaseConnection(const std::filesystem::path& URL) {
    if (sqlite3_open(URL.c_str(), &connection_) != SQLITE_OK) {
        // A handle comes back even when the open fails, and must be closed.
        sqlite3_close(connection_);
        connection_ = nullptr;
        KRO_DATABASE_RAISE("Could not open database");
    }
    sqlite3_busy_timeout(connection_, 1);
}

KRODatabaseConnection::~KRODatabaseConnection() {
    queries_.clear();
    // A query a caller still holds keeps the handle open until it goes.
    sqlite3_close_v2(connection_);
}

std::shared_ptr<KRODatabaseQuery>
KRODatabaseConnection::queryWithStatement(const std::string& statement) {
    sqlite3_stmt* prepared = nullptr;
    int result = SQLITE_BUSY;
    while ((result = sqlite3_prepare_v2(connection_, statement.c_str(), -1, &prepared, nullptr)) ==
           SQLITE_BUSY) {
        ::usleep(20);
    }
    if (result != SQLITE_OK) {
        KRO_DATABASE_RAISE("sqlite3_prepare_v2 failed: %d", result);
    }
    auto query = std::make_shared<KRODatabaseQuery>(prepared, *this);
    queries_.push_back(query);
    return query;
}

void KRODatabaseConnection::finishedWithQuery(const std::shared_ptr<KRODatabaseQuery>& query) {
    queries_.erase(std::remove(queries_.begin(), queries_.end(), query), queries_.end());
}
