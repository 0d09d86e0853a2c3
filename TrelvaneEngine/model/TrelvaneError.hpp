// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <exception>
#include <string>

namespace trelvane {

// The one error type of decoding and matching. `description()` is the text the user sees.
class TrelvaneError : public std::exception {
  public:
    enum class Kind {
        noAudioTrack,
        readerStartFailed,
        readFailed,
        emptySamples,
        silentAudio,
        correlationFailed,
        notEnoughTracks,
        stopped, // the caller asked a decode to stop; nothing of it stands
    };

    static TrelvaneError noAudioTrack(std::string s) { return {Kind::noAudioTrack, std::move(s)}; }
    static TrelvaneError readerStartFailed(std::string s) { return {Kind::readerStartFailed, std::move(s)}; }
    static TrelvaneError readFailed(std::string s) { return {Kind::readFailed, std::move(s)}; }
    static TrelvaneError emptySamples(std::string s) { return {Kind::emptySamples, std::move(s)}; }
    static TrelvaneError silentAudio(std::string s) { return {Kind::silentAudio, std::move(s)}; }
    static TrelvaneError correlationFailed(std::string s) { return {Kind::correlationFailed, std::move(s)}; }
    static TrelvaneError notEnoughTracks() { return {Kind::notEnoughTracks, {}}; }
    static TrelvaneError stopped(std::string s) { return {Kind::stopped, std::move(s)}; }

    Kind kind() const { return kind_; }
    // The case's string, as a rule a file name; empty for `notEnoughTracks`.
    const std::string& detail() const { return detail_; }
    const std::string& description() const { return description_; }
    const char* what() const noexcept override { return description_.c_str(); }

  private:
    TrelvaneError(Kind kind, std::string detail);
    Kind kind_;
    std::string detail_;
    std::string description_;
};

} // namespace trelvane
