// One pass over the characters with a small state machine, because the first character that is wrong is the
// answer, and what may stand somewhere depends only on how the text began.

#include "paths/path_text.h"

#include <vexel/paths.h>

namespace Vexel {

namespace {

using Result = PathValidationResult;

/// What has been read so far.
enum class State {
    Nothing,
    OneSeparator,
    TwoSeparators,
    PrefixMark, ///< two separators and a question mark
    Prefix,     ///< the whole long-path prefix
    DriveLetter,
    Marker, ///< "<" and no ">" yet
    Rest,
};

State afterSeparator(State state) noexcept {
    switch (state) {
    case State::Nothing:
        return State::OneSeparator;
    case State::OneSeparator:
        return State::TwoSeparators;
    case State::PrefixMark:
        return State::Prefix;
    default:
        return State::Rest;
    }
}

class Validator {
public:
    explicit Validator(bool markerAllowed) noexcept : markerAllowed_(markerAllowed) {}

    Result take(wchar_t c) noexcept {
        if (c < L' ')
            return Result::ControlCharacter;
        if (state_ == State::Marker)
            return c == L'>' ? go(State::Rest) : Result::Valid;
        if (state_ == State::PrefixMark && !Detail::isSeparator(c))
            return Result::MisplacedQuestionMark;
        switch (c) {
        case L'*':
        case L'"':
        case L'>':
        case L'|':
            return Result::ForbiddenCharacter;
        case L'?':
            return state_ == State::TwoSeparators ? go(State::PrefixMark) : Result::MisplacedQuestionMark;
        case L':':
            return state_ == State::DriveLetter ? go(State::Rest) : Result::MisplacedColon;
        case L'<':
            return markerAllowed_ && state_ == State::Nothing ? go(State::Marker) : Result::MisplacedMarker;
        case L'\\':
        case L'/':
            return go(afterSeparator(state_));
        default:
            return go(mayBeDrive() && Detail::isDriveLetter(c) ? State::DriveLetter : State::Rest);
        }
    }

    Result end() const noexcept {
        switch (state_) {
        case State::Nothing:
        case State::Prefix:
            return Result::Empty;
        case State::PrefixMark:
            return Result::MisplacedQuestionMark;
        case State::Marker:
            return Result::OpenMarker;
        default:
            return Result::Valid;
        }
    }

private:
    bool mayBeDrive() const noexcept { return state_ == State::Nothing || state_ == State::Prefix; }
    Result go(State next) noexcept {
        state_ = next;
        return Result::Valid;
    }

    State state_ = State::Nothing;
    bool markerAllowed_;
};

} // namespace

PathValidationResult ValidatePath(std::wstring_view path, PathType type, bool allowMarker) {
    Validator validator(allowMarker && type != PathType::FileSystem);
    for (const wchar_t c : path) {
        if (const Result result = validator.take(c); result != Result::Valid)
            return result;
    }
    return validator.end();
}

} // namespace Vexel
