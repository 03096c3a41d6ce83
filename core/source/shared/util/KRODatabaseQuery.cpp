#include "KRODatabaseQuery.h"

#include <sqlite3.h>
#include <unistd.h>

#include "KRODatabaseConnection.h"
#include "KRODatabaseException.h"

namespace {

// Each bind's own message names the SQLite call that failed.
void checkBind(int result, const char* call) {
    if (result != SQLITE_OK) {
        KRO_DATABASE_RAISE("%s failed: %d", call, result);
    }
}

template <typename... Alternatives> struct Overloads : Alternatives... {
    using Alternatives::operator()...;
};
template <typename... Alternatives> Overloads(Alternatives...) -> Overloads<Alternatives...>;

} // namespace

KRODatabaseQuery::KRODatabaseQuery(sqlite3_stmt* statement, KRODatabaseConnection& connection)
    : statement_(statement), connection_(connection) {}

KRODatabaseQuery::~KRODatabaseQuery() {
    sqlite3_finalize(statement_);
}

std::string KRODatabaseQuery::description() const {
    const char* text = sqlite3_sql(statement_);
    return text ? text : "";
}

void KRODatabaseQuery::resetArguments() {
    sqlite3_clear_bindings(statement_);
}

int KRODatabaseQuery::numberOfArguments() const {
    return sqlite3_bind_parameter_count(statement_);
}

void KRODatabaseQuery::setValue(const KRODatabaseValue& value, int index) {
    std::visit(Overloads{
                   [&](const std::string& text) { setStringValue(text, index); },
                   [&](float number) { setDoubleValue(number, index); },
                   [&](double number) { setDoubleValue(number, index); },
                   [&](std::int64_t number) { setLongLongValue(number, index); },
                   [&](int number) { setIntValue(number, index); },
                   [&](bool number) { setIntValue(number ? 1 : 0, index); },
                   [&](const std::vector<std::uint8_t>& data) { setDataValue(data, index); },
                   [&](const auto&) { setNullValue(index); },
               },
               value);
}

void KRODatabaseQuery::setIntValue(int value, int index) {
    checkBind(sqlite3_bind_int(statement_, index + 1, value), "sqlite3_bind_int");
}

void KRODatabaseQuery::setLongLongValue(std::int64_t value, int index) {
    checkBind(sqlite3_bind_int64(statement_, index + 1, value), "sqlite3_bind_int64");
}

void KRODatabaseQuery::setDoubleValue(double value, int index) {
    checkBind(sqlite3_bind_double(statement_, index + 1, value), "sqlite3_bind_double");
}

void KRODatabaseQuery::setStringValue(const std::string& value, int index) {
    checkBind(sqlite3_bind_text(statement_, index + 1, value.data(), static_cast<int>(value.size()),
                                SQLITE_TRANSIENT),
              "sqlite3_bind_text");
}

void KRODatabaseQuery::setDataValue(const std::vector<std::uint8_t>& value, int index) {
    checkBind(sqlite3_bind_blob(statement_, index + 1, value.data(), static_cast<int>(value.size()),
                                SQLITE_TRANSIENT),
              "sqlite3_bind_blob");
}

void KRODatabaseQuery::setNullValue(int index) {
    checkBind(sqlite3_bind_null(statement_, index + 1), "sqlite3_bind_null");
}

void KRODatabaseQuery::reset() {
    sqlite3_reset(statement_);
}

bool KRODatabaseQuery::step(bool rowsAllowed) {
    // Another connection holding the database: wait, for as long as it takes.
    for (;;) {
        const int result = sqlite3_step(statement_);
        if (result == SQLITE_BUSY) {
            ::usleep(20);
            continue;
        }
        if (result == SQLITE_ROW) {
            if (!rowsAllowed) {
                KRO_DATABASE_RAISE("execute: misuse. Should not return rows.");
            }
            return true;
        }
        if (result == SQLITE_DONE) {
            return false;
        }
        sqlite3* handle = connection_.connection();
        KRO_DATABASE_RAISE("sqlite3_step failed: %d [%d] (%s)", result,
                           sqlite3_extended_errcode(handle), sqlite3_errmsg(handle));
    }
}

void KRODatabaseQuery::execute() {
    step(false);
}

bool KRODatabaseQuery::evaluateNextRow() {
    return step(true);
}

std::vector<KRODatabaseRow> KRODatabaseQuery::evaluatedRows() {
    std::vector<KRODatabaseRow> rows;
    while (evaluateNextRow()) {
        KRODatabaseRow row;
        for (int column = 0; column < numberOfColumns(); ++column) {
            row[nameOfColumn(column)] = valueAtColumn(column);
        }
        rows.push_back(std::move(row));
    }
    return rows;
}

std::int64_t KRODatabaseQuery::lastInsertedRowID() const {
    return sqlite3_last_insert_rowid(connection_.connection());
}

int KRODatabaseQuery::numberOfColumns() const {
    return sqlite3_column_count(statement_);
}

std::string KRODatabaseQuery::nameOfColumn(int index) const {
    const char* name = sqlite3_column_name(statement_, index);
    return name ? name : "";
}

KRODatabaseValue KRODatabaseQuery::valueAtColumn(int index) const {
    switch (sqlite3_column_type(statement_, index)) {
    case SQLITE_INTEGER:
        return intValueAtColumn(index);
    case SQLITE_FLOAT:
        return doubleValueAtColumn(index);
    case SQLITE_TEXT:
        return stringValueAtColumn(index);
    case SQLITE_BLOB:
        return dataValueAtColumn(index);
    case SQLITE_NULL:
        return KRODatabaseNull{};
    default:
        return std::monostate{};
    }
}

int KRODatabaseQuery::intValueAtColumn(int index) const {
    return sqlite3_column_int(statement_, index);
}

std::int64_t KRODatabaseQuery::longLongValueAtColumn(int index) const {
    return sqlite3_column_int64(statement_, index);
}

double KRODatabaseQuery::doubleValueAtColumn(int index) const {
    return sqlite3_column_double(statement_, index);
}

std::string KRODatabaseQuery::stringValueAtColumn(int index) const {
    const auto* text = sqlite3_column_text(statement_, index);
    const int length = sqlite3_column_bytes(statement_, index);
    return text ? std::string(reinterpret_cast<const char*>(text), static_cast<std::size_t>(length))
                : std::string();
}

std::vector<std::uint8_t> KRODatabaseQuery::dataValueAtColumn(int index) const {
    const auto* bytes = static_cast<const std::uint8_t*>(sqlite3_column_blob(statement_, index));
    const int length = sqlite3_column_bytes(statement_, index);
    return bytes ? std::vector<std::uint8_t>(bytes, bytes + length) : std::vector<std::uint8_t>();
}
