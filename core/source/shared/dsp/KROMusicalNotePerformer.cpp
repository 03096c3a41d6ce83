#include "KROMusicalNotePerformer.h"

// Defined here so that the role's type information lives in the library.
KROMusicalNotePerformer::~KROMusicalNotePerformer() = default;
