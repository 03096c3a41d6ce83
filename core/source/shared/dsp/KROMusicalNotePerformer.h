// The role of an object that plays notes, taken by the note-driven voices
// such as KROSineWaveSynthAudioGenerator. All three
// operations are required; each takes a set of notes and returns nothing.
#pragma once

#include <memory>
#include <unordered_set>

#include "KROMusicalNote.h"

// A set of notes, by identity.
using KROMusicalNoteSet = std::unordered_set<std::shared_ptr<KROMusicalNote>>;

class KROMusicalNotePerformer {
public:
    virtual ~KROMusicalNotePerformer();

    virtual void notesBegan(const KROMusicalNoteSet& notes) = 0;
    virtual void notesChanged(const KROMusicalNoteSet& notes) = 0;
    virtual void notesEnded(const KROMusicalNoteSet& notes) = 0;
};
