#include "KROMusicalNote.h"

#include <cstdio>

#include "KROClassRegistry.h"

KRO_REGISTER_CLASS(KROMusicalNote, KROObject)

KROMusicalNote::KROMusicalNote(float semitone, float level) : semitone_(semitone), level_(level) {}

KROMusicalNote::KROMusicalNote(const KROMusicalNote& other)
    : KROObject(other), semitone_(other.semitone()), level_(other.level()) {}

KROMusicalNote& KROMusicalNote::operator=(const KROMusicalNote& other) {
    setSemitone(other.semitone());
    setLevel(other.level());
    return *this;
}

std::shared_ptr<KROMusicalNote> KROMusicalNote::noteWithSemitone(float semitone, float level) {
    return std::make_shared<KROMusicalNote>(semitone, level);
}

std::string KROMusicalNote::description() const {
    char text[64];
    std::snprintf(text, sizeof text, "semitone: %g level: %g dB", static_cast<double>(semitone()),
                  static_cast<double>(level()));
    return text;
}
