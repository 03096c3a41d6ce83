// The SQLite wrapper: values by kind, failures, connections per thread, Python's sqlite3.
#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <thread>
#include <vector>

#include "KRODatabaseConnection.h"
#include "KRODatabaseController.h"
#include "KRODatabaseException.h"
#include "KROScratchDirectory.h"
#include "KROSerialQueue.h"
#include "KROTestCommand.h"

namespace {

using Data = std::vector<std::uint8_t>;

// The raised text of body, or "" when it raised nothing.
template <typename Body> std::string raisedMessage(Body body) {
    try {
        body();
    } catch (const KRODatabaseException& exception) {
        EXPECT_NE(exception.line(), 0);
        return exception.what();
    }
    return "";
}

struct KRODatabase : ::testing::Test {
    KROScratchDirectory directory;
    // Named after its folder: a thread keeps its connection by name after
    // the folder is gone, so each test needs a name of its own.
    std::string name = directory.path().filename().string() + ".db";
    KRODatabaseController database{directory / name};

    void SetUp() override {
        database.executeStatement("CREATE TABLE t (id INTEGER PRIMARY KEY, v)");
    }
    std::vector<KRODatabaseRow> rows(const std::string& statement) {
        std::vector<KRODatabaseRow> result;
        database.executeStatement(statement, nullptr,
                                  [&](KRODatabaseQuery& query) { result = query.evaluatedRows(); });
        return result;
    }
};

} // namespace

// Each kind binds by its width and reads back by the column's type: integers
// through int, so a 64-bit value comes back cut to 32 bits by valueAtColumn
// and whole by longLongValueAtColumn; floats as doubles; bool as 1; nothing
// and NULL as NULL.
TEST_F(KRODatabase, ValuesGoInByKindAndComeOutByColumnType) {
    const std::int64_t wide = (std::int64_t{5} << 32) + 7;
    struct Case {
        KRODatabaseValue in;
        KRODatabaseValue out;
    };
    const Case cases[] = {
        {std::string("Take one"), std::string("Take one")},
        {42, 42},
        {wide, 7},
        {0.25f, 0.25},
        {-1.5, -1.5},
        {true, 1},
        {Data{0, 1, 255}, Data{0, 1, 255}},
        {KRODatabaseNull{}, KRODatabaseNull{}},
        {std::monostate{}, KRODatabaseNull{}},
    };
    for (const Case& c : cases) {
        database.executeStatement("INSERT INTO t (v) VALUES (?)", nullptr,
                                  [&](KRODatabaseQuery& query) {
                                      EXPECT_EQ(query.numberOfArguments(), 1);
                                      query.setValue(c.in, 0);
                                      query.execute();
                                  });
    }
    const std::vector<KRODatabaseRow> read = rows("SELECT v FROM t ORDER BY id");
    ASSERT_EQ(read.size(), std::size(cases));
    for (std::size_t index = 0; index < read.size(); ++index) {
        SCOPED_TRACE(index);
        EXPECT_EQ(read[index].at("v"), cases[index].out);
    }
    database.executeStatement("SELECT v FROM t WHERE id = 3", nullptr,
                              [&](KRODatabaseQuery& query) {
                                  ASSERT_TRUE(query.evaluateNextRow());
                                  EXPECT_EQ(query.longLongValueAtColumn(0), wide);
                                  EXPECT_EQ(query.nameOfColumn(0), "v");
                                  EXPECT_FALSE(query.evaluateNextRow());
                              });
}

// Argument 0 is SQLite's parameter 1; the typed setters, a reset and cleared
// arguments, the new row's id and the statement's text.
TEST_F(KRODatabase, TypedArgumentsCountFromZero) {
    database.executeStatement(
        "INSERT INTO t (id, v) VALUES (?, ?)", nullptr, [](KRODatabaseQuery& query) {
            EXPECT_EQ(query.description(), "INSERT INTO t (id, v) VALUES (?, ?)");
            query.setLongLongValue(10, 0);
            query.setStringValue("ten", 1);
            query.execute();
            EXPECT_EQ(query.lastInsertedRowID(), 10);
            query.reset();
            query.resetArguments();
            query.setIntValue(11, 0);
            query.execute();
            EXPECT_EQ(query.lastInsertedRowID(), 11);
        });
    const std::vector<KRODatabaseRow> read = rows("SELECT id, v FROM t ORDER BY id");
    ASSERT_EQ(read.size(), 2u);
    EXPECT_EQ(read[0].at("v"), KRODatabaseValue(std::string("ten")));
    EXPECT_EQ(read[1].at("v"), KRODatabaseValue(KRODatabaseNull{}));
}

// Every failure raises its own text, and a raise in a handler still leaves
// the connection ready for the next statement.
TEST_F(KRODatabase, FailuresRaiseTheirTexts) {
    database.executeStatement("INSERT INTO t (id, v) VALUES (1, 'a')");
    const auto withQuery = [&](const std::string& statement,
                               const std::function<void(KRODatabaseQuery&)>& body) {
        return raisedMessage([&] { database.executeStatement(statement, nullptr, body); });
    };
    struct Case {
        std::string message;
        std::string raised;
    };
    const Case cases[] = {
        {"execute: misuse. Should not return rows.",
         raisedMessage([&] { database.executeStatement("SELECT * FROM t"); })},
        {"sqlite3_prepare_v2 failed: 1",
         raisedMessage([&] { database.executeStatement("SELEKT nothing"); })},
        {"sqlite3_step failed: 19 [1555] (UNIQUE constraint failed: t.id)",
         raisedMessage([&] { database.executeStatement("INSERT INTO t (id) VALUES (1)"); })},
        {"sqlite3_bind_int failed: 25",
         withQuery("SELECT ?", [](KRODatabaseQuery& query) { query.setIntValue(1, 1); })},
        {"sqlite3_bind_int64 failed: 25",
         withQuery("SELECT ?", [](KRODatabaseQuery& query) { query.setLongLongValue(1, 5); })},
        {"sqlite3_bind_double failed: 25",
         withQuery("SELECT ?", [](KRODatabaseQuery& query) { query.setDoubleValue(1, -1); })},
        {"sqlite3_bind_text failed: 25",
         withQuery("SELECT ?", [](KRODatabaseQuery& query) { query.setStringValue("x", 1); })},
        {"sqlite3_bind_blob failed: 25",
         withQuery("SELECT ?", [](KRODatabaseQuery& query) { query.setDataValue({1}, 1); })},
        {"sqlite3_bind_null failed: 25",
         withQuery("SELECT ?", [](KRODatabaseQuery& query) { query.setNullValue(1); })},
        {"Could not open database",
         raisedMessage([&] { KRODatabaseConnection(directory / "no/such/folder.db"); })},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(c.raised, c.message);
    }
    EXPECT_EQ(rows("SELECT id FROM t").size(), 1u);
}

// One connection per thread and database name: two threads use two; two
// controllers of files with the same name in different folders share the
// first on one thread, kept.
TEST_F(KRODatabase, ConnectionsArePerThreadAndPerName) {
    const auto connectionOf = [](KRODatabaseController& controller) {
        const KRODatabaseConnection* used = nullptr;
        controller.executeStatement("SELECT 1", nullptr,
                                    [&](KRODatabaseQuery& query) { used = &query.connection(); });
        return used;
    };
    const KRODatabaseConnection* here = connectionOf(database);
    const KRODatabaseConnection* there = nullptr;
    std::thread([&] { there = connectionOf(database); }).join();
    EXPECT_EQ(connectionOf(database), here);
    EXPECT_NE(there, here);

    std::filesystem::create_directory(directory / "other");
    KRODatabaseController sameName(directory / "other" / name);
    EXPECT_EQ(connectionOf(sameName), here);
    EXPECT_EQ(rows("SELECT name FROM sqlite_master").size(), 1u);
    EXPECT_FALSE(std::filesystem::exists(directory / "other" / name));
}

// Jobs posted to a queue run there in order; a raise there is logged, not
// thrown into the queue's thread.
TEST_F(KRODatabase, AQueueRunsTheJobsInOrder) {
    KROSerialQueue queue("database test", KROSerialQueue::Priority::normal);
    for (int value = 0; value < 3; ++value) {
        database.executeStatement("INSERT INTO t (v) VALUES (?)", &queue,
                                  [value](KRODatabaseQuery& query) {
                                      query.setIntValue(value, 0);
                                      query.execute();
                                  });
    }
    database.executeStatement("SELEKT", &queue);
    std::vector<KRODatabaseRow> read;
    database.executeStatement("SELECT v FROM t ORDER BY id", &queue,
                              [&](KRODatabaseQuery& query) { read = query.evaluatedRows(); });
    queue.sync([] {});
    ASSERT_EQ(read.size(), 3u);
    EXPECT_EQ(read[2].at("v"), KRODatabaseValue(2));
}

// Four threads insert at once, each on its own connection, waiting on one
// another through the busy loops; Python's sqlite3 reads every row written.
TEST_F(KRODatabase, ThreadsWriteAtOnceAndPythonReadsTheFile) {
    constexpr int threads = 4;
    constexpr int rowsPerThread = 50;
    std::vector<std::thread> writers;
    for (int thread = 0; thread < threads; ++thread) {
        writers.emplace_back([&, thread] {
            for (int row = 0; row < rowsPerThread; ++row) {
                database.executeStatement("INSERT INTO t (v) VALUES (?)", nullptr,
                                          [&](KRODatabaseQuery& query) {
                                              query.setStringValue(std::to_string(thread), 0);
                                              query.execute();
                                          });
            }
        });
    }
    for (std::thread& writer : writers) {
        writer.join();
    }
    const KROCommandResult python = KRORunCommand(
        "/usr/bin/python3 -c \"import sqlite3,sys; c=sqlite3.connect(sys.argv[1]); "
        "print(sorted(c.execute('SELECT v, count(*) FROM t GROUP BY v').fetchall()))\" " +
        (directory / name).string());
    ASSERT_EQ(python.status, 0);
    EXPECT_EQ(python.output, "[('0', 50), ('1', 50), ('2', 50), ('3', 50)]\n");
}
