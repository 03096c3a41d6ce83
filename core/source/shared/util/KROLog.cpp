#include "KROLog.h"

#include <mutex>
#include <syslog.h>

namespace {

struct LogSinkSlot {
    std::mutex lock;
    KROLogSink sink;
};

LogSinkSlot& logSinkSlot() {
    static LogSinkSlot slot;
    return slot;
}

void writeToSyslog(const std::string& line) {
    syslog(LOG_NOTICE, "%s", line.c_str());
}

} // namespace

void KROSetLogSink(KROLogSink sink) {
    LogSinkSlot& slot = logSinkSlot();
    std::lock_guard guard(slot.lock);
    slot.sink = std::move(sink);
}

void KROLogLine(const std::string& line) {
    LogSinkSlot& slot = logSinkSlot();
    std::lock_guard guard(slot.lock);
    if (slot.sink) {
        slot.sink(line);
    } else {
        writeToSyslog(line);
    }
}
