// A pattern for the names of one-file-per-channel audio (take.L.wav,
// take.R.wav): what follows the base name, with "/abbr/" standing for the
// channel abbreviation and "/ext/" for the file extension. A scheme builds a
// name from its parts and takes a name apart into base name, abbreviation
// and extension.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "KROObject.h"
#include "KROPropertyList.h"

// The parts of a file name that fitted a scheme. A name shorter than the
// scheme's literal tail gives an empty name and only the parts matched
// before it ran out, so callers look at what was found.
struct KROAudioFilenameParts {
    std::string name;
    std::optional<std::string> abbreviation;
    std::optional<std::string> extension;

    bool operator==(const KROAudioFilenameParts&) const = default;
};

class KROAudioFilenameScheme : public KROObject {
    KRO_DECLARE_CLASS(KROAudioFilenameScheme)

public:
    // The words a token may match when a name is taken apart, tried in this
    // order: longer abbreviations stand before the shorter ones that end
    // them, so that a name ending in "LC" is not read as ending in "C".
    static const std::vector<std::string>& abbreviations();
    static const std::vector<std::string>& extensions();

    static std::shared_ptr<KROAudioFilenameScheme>
    schemeWithProperties(const KROPropertyList& properties);
    // Enabled and not locked.
    static std::shared_ptr<KROAudioFilenameScheme> schemeWithExpression(std::string expression);

    // The expression.
    std::string description() const override { return expression_; }
    // Equal with an equal expression; the hash is the expression's.
    bool isEqual(const KROObject& other) const override;
    std::size_t hash() const override;

    // An example for the preferences: the localized word for a file name,
    // "*" for the channel and the extension.
    std::string descriptionWithExtension(std::string_view extension) const;
    // The name followed by the expression, every "/abbr/" replaced by the
    // abbreviation and then every "/ext/" by the extension.
    std::string filenameForName(std::string_view name, std::string_view channelAbbreviation,
                                std::string_view extension) const;
    // Matches from the end of both strings: literal characters exactly,
    // tokens against the word lists without regard to case, storing the
    // list's form. None when the name does not fit.
    std::optional<KROAudioFilenameParts> parseFilename(std::string_view filename) const;

    // "expression", "enabled" and "locked": each read when present, all
    // three always written.
    KROPropertyList properties() const;
    void setProperties(const KROPropertyList& properties);

    bool enabled() const { return enabled_; }
    void setEnabled(bool enabled);
    // A built-in scheme that the host's interface must not change; set only
    // through setProperties.
    bool locked() const { return locked_; }
    const std::string& expression() const { return expression_; }
    void setExpression(std::string expression);

    // Called after each change of enabled or expression; the list of schemes
    // watches its members this way.
    using ChangeHandler = std::function<void(const KROAudioFilenameScheme&)>;
    void setChangeHandler(ChangeHandler handler) { changeHandler_ = std::move(handler); }

private:
    void changed() const;

    bool enabled_ = false;
    bool locked_ = false;
    std::string expression_;
    ChangeHandler changeHandler_;
};
