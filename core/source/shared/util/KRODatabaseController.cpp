#include "KRODatabaseController.h"

#include <map>
#include <memory>

#include "KRODatabaseConnection.h"
#include "KRODatabaseException.h"
#include "KROLog.h"
#include "KROSerialQueue.h"

namespace {

// This thread's connections by database name.
KRODatabaseConnection& connectionOfThisThread(const std::filesystem::path& URL) {
    thread_local std::map<std::string, std::unique_ptr<KRODatabaseConnection>> connections;
    std::unique_ptr<KRODatabaseConnection>& connection = connections[URL.filename().string()];
    if (!connection) {
        connection = std::make_unique<KRODatabaseConnection>(URL);
    }
    return *connection;
}

} // namespace

KRODatabaseController::KRODatabaseController(std::filesystem::path URL) : URL_(std::move(URL)) {}

std::filesystem::path KRODatabaseController::URL() const {
    const std::lock_guard guard(lock_);
    return URL_;
}

void KRODatabaseController::setURL(std::filesystem::path URL) {
    const std::lock_guard guard(lock_);
    URL_ = std::move(URL);
}

void KRODatabaseController::executeStatement(const std::string& statement, KROSerialQueue* queue,
                                             QueryHandler handler) {
    const std::filesystem::path URL = this->URL();
    if (!queue) {
        runStatement(URL, statement, handler);
        return;
    }
    queue->async([URL, statement, handler = std::move(handler)] {
        try {
            runStatement(URL, statement, handler);
        } catch (const KRODatabaseException& exception) {
            KROLog("%@ (%@:%@)", exception.what(), exception.file(), exception.line());
        }
    });
}

void KRODatabaseController::runStatement(const std::filesystem::path& URL,
                                         const std::string& statement,
                                         const QueryHandler& handler) {
    KRODatabaseConnection& connection = connectionOfThisThread(URL);
    const std::shared_ptr<KRODatabaseQuery> query = connection.queryWithStatement(statement);
    // The query leaves the connection also when the handler raises.
    struct Finish {
        KRODatabaseConnection& connection;
        const std::shared_ptr<KRODatabaseQuery>& query;
        ~Finish() { connection.finishedWithQuery(query); }
    } finish{connection, query};
    if (handler) {
        handler(*query);
    } else {
        query->execute();
    }
}
