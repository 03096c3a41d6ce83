// The list of file name schemes the user keeps, stored in the preferences
// under "KROAudioFilenameSchema" and written through on every change: a
// scheme inserted or removed, or the enabled flag or expression of a member
// changed. The built-in schemes of the resource KROAudioFilenameSchema.plist
// are registered as the defaults, so they stand until the user's list exists.
// Used from the host's main thread.
#pragma once

#include <cstddef>
#include <memory>
#include <string_view>
#include <vector>

#include "KROAudioFilenameScheme.h"
#include "KROObject.h"
#include "KROUserDefaults.h"

class KROAudioFilenameSchemes : public KROObject {
    KRO_DECLARE_CLASS(KROAudioFilenameSchemes)

public:
    using Schemes = std::vector<std::shared_ptr<KROAudioFilenameScheme>>;

    // The list of the user's standard preferences.
    static KROAudioFilenameSchemes& sharedInstance();
    // A list kept in another store, for hosts with several and for tests.
    explicit KROAudioFilenameSchemes(KROUserDefaults& defaults);
    KROAudioFilenameSchemes(const KROAudioFilenameSchemes&) = delete;
    KROAudioFilenameSchemes& operator=(const KROAudioFilenameSchemes&) = delete;
    ~KROAudioFilenameSchemes() override;

    // Writes every scheme's properties to the preferences.
    void synchronize();

    // The first scheme in list order that takes the name apart, enabled or not.
    std::shared_ptr<KROAudioFilenameScheme> schemeForFilename(std::string_view filename) const;
    // The first scheme with exactly that expression; none for "".
    std::shared_ptr<KROAudioFilenameScheme> schemeWithExpression(std::string_view expression) const;

    std::size_t countOfSchemes() const { return schemes_.size(); }
    const Schemes& enumeratorOfSchemes() const { return schemes_; }
    // Null past the end.
    std::shared_ptr<KROAudioFilenameScheme> objectInSchemesAtIndex(std::size_t index) const;
    // An index past the end appends.
    void insertObjectInSchemesAtIndex(std::shared_ptr<KROAudioFilenameScheme> scheme,
                                      std::size_t index);
    // Nothing for an index past the end.
    void removeObjectFromSchemesAtIndex(std::size_t index);

private:
    KROUserDefaults& defaults_;
    Schemes schemes_;
};
