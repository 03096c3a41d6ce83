// Names one database file and runs statements on it from any thread or
// queue. Each thread has its own connection per database, found by the
// file's last path component and kept until the thread ends. Kept: two files
// of the same name in different folders share one connection on a thread, the
// first one opened, whichever controller asks.
//
// A failure raises KRODatabaseException out of executeStatement when it runs
// on the caller's thread. A job posted to a queue has no caller to unwind
// into: its raise is logged and the job ends there.
#pragma once

#include <filesystem>
#include <functional>
#include <mutex>
#include <string>

class KRODatabaseQuery;
class KROSerialQueue;

class KRODatabaseController {
public:
    using QueryHandler = std::function<void(KRODatabaseQuery&)>;

    explicit KRODatabaseController(std::filesystem::path URL);

    std::filesystem::path URL() const;
    void setURL(std::filesystem::path URL);

    // Prepares statement on this thread's connection (or the queue's), then
    // hands the query to handler, or, with none, executes it. With a queue
    // the job is posted and this returns at once.
    void executeStatement(const std::string& statement, KROSerialQueue* queue = nullptr,
                          QueryHandler handler = nullptr);

private:
    static void runStatement(const std::filesystem::path& URL, const std::string& statement,
                             const QueryHandler& handler);

    mutable std::mutex lock_;
    std::filesystem::path URL_;
};
