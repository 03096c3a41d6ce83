// One prepared statement of a database connection, with typed binding and
// reading. Argument indexes count from 0 (SQLite's from 1: each bind adds
// one); column indexes are SQLite's. The statement is finalised when the
// query goes. Failures raise KRODatabaseException.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <variant>
#include <vector>

struct sqlite3_stmt;
class KRODatabaseConnection;

// The database's NULL, as a value of its own.
struct KRODatabaseNull {
    bool operator==(const KRODatabaseNull&) const = default;
};

// A value bound to an argument or read from a column. Numbers keep the width
// they were made with, which picks the bind: float and double bind as
// doubles, 64-bit integers as 64-bit, the rest as int. std::monostate is no
// value at all; bound, it is NULL.
using KRODatabaseValue = std::variant<std::monostate, KRODatabaseNull, bool, int, std::int64_t,
                                      float, double, std::string, std::vector<std::uint8_t>>;
// A row by column name.
using KRODatabaseRow = std::map<std::string, KRODatabaseValue>;

class KRODatabaseQuery {
public:
    KRODatabaseQuery(sqlite3_stmt* statement, KRODatabaseConnection& connection);
    KRODatabaseQuery(const KRODatabaseQuery&) = delete;
    KRODatabaseQuery& operator=(const KRODatabaseQuery&) = delete;
    ~KRODatabaseQuery();

    // The SQL text.
    std::string description() const;
    KRODatabaseConnection& connection() const { return connection_; }

    // ---- Arguments
    void resetArguments();
    int numberOfArguments() const;
    void setValue(const KRODatabaseValue& value, int index);
    void setIntValue(int value, int index);
    void setLongLongValue(std::int64_t value, int index);
    void setDoubleValue(double value, int index);
    void setStringValue(const std::string& value, int index);
    void setDataValue(const std::vector<std::uint8_t>& value, int index);
    void setNullValue(int index);

    // ---- Running
    void reset();
    // For statements that give no rows: a row raises a misuse.
    void execute();
    // Steps once: true when a row is there, false at the end.
    bool evaluateNextRow();
    // Runs to the end.
    std::vector<KRODatabaseRow> evaluatedRows();
    std::int64_t lastInsertedRowID() const;

    // ---- Columns of the current row
    int numberOfColumns() const;
    std::string nameOfColumn(int index) const;
    // By the column's type: an integer as int, so cut to 32 bits (kept:
    // hosts read wide integers with longLongValueAtColumn); a float as a
    // double; text; a blob; NULL as KRODatabaseNull.
    KRODatabaseValue valueAtColumn(int index) const;
    int intValueAtColumn(int index) const;
    std::int64_t longLongValueAtColumn(int index) const;
    double doubleValueAtColumn(int index) const;
    std::string stringValueAtColumn(int index) const;
    std::vector<std::uint8_t> dataValueAtColumn(int index) const;

private:
    // sqlite3_step until it is not busy: true on a row, false when done.
    bool step(bool rowsAllowed);

    sqlite3_stmt* statement_;
    KRODatabaseConnection& connection_;
};
