#include "hostprofile.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <sstream>

namespace host {

namespace {

bool toNumber(const std::string& word, double& value)
{
    if (word.empty()) {
        return false;
    }
    char* end = nullptr;
    errno = 0;
    value = std::strtod(word.c_str(), &end);
    return errno == 0 && end == word.c_str() + word.size() && std::isfinite(value);
}

bool parseCommand(const std::vector<std::string>& words, size_t first, ProfileEvent& event, std::string& why)
{
    if (first >= words.size()) {
        why = "missing command";
        return false;
    }
    const std::string& command = words[first];
    const size_t argc = words.size() - first - 1;
    auto number = [&](size_t index, double& value) {
        if (!toNumber(words[first + 1 + index], value)) {
            why = "'" + words[first + 1 + index] + "' is not a finite number";
            return false;
        }
        return true;
    };
    auto expect = [&](size_t low, size_t high) {
        if (argc < low || argc > high) {
            why = "'" + command + "' takes " +
                  (low == high ? std::to_string(low) : std::to_string(low) + " to " + std::to_string(high)) +
                  " argument(s)";
            return false;
        }
        return true;
    };

    if (command == "sensing") {
        event.kind = ProfileEvent::Kind::Sensing;
        if (!expect(1, 1)) {
            return false;
        }
        const std::string& state = words[first + 1];
        if (state != "on" && state != "off") {
            why = "sensing takes on or off";
            return false;
        }
        event.on = state == "on";
        return true;
    }
    if (command == "version" || command == "end") {
        event.kind = command == "version" ? ProfileEvent::Kind::Version : ProfileEvent::Kind::End;
        return expect(0, 0);
    }
    if (command == "armed" || command == "height" || command == "pitch") {
        event.kind = command == "armed"    ? ProfileEvent::Kind::Armed
                     : command == "height" ? ProfileEvent::Kind::Height
                                           : ProfileEvent::Kind::Pitch;
        if (!expect(1, 1) || !number(0, event.values[0])) {
            return false;
        }
        event.valueCount = 1;
        if (event.kind == ProfileEvent::Kind::Armed &&
            (event.values[0] < 0 || event.values[0] > 255 || event.values[0] != std::floor(event.values[0]))) {
            why = "armed takes a whole number 0..255";
            return false;
        }
        return true;
    }
    if (command == "speed") {
        event.kind = ProfileEvent::Kind::Speed;
        if (!expect(1, 3)) {
            return false;
        }
        for (size_t i = 0; i < argc; ++i) {
            if (!number(i, event.values[i])) {
                return false;
            }
        }
        event.valueCount = static_cast<int>(argc);
        return true;
    }
    why = "unknown command '" + command + "'";
    return false;
}

}  // namespace

bool parseProfile(const std::string& text, Profile& profile, std::string& error)
{
    profile.events.clear();
    std::istringstream in(text);
    std::string line;
    int number = 0;
    while (std::getline(in, line)) {
        ++number;
        const size_t hash = line.find('#');
        if (hash != std::string::npos) {
            line.erase(hash);
        }
        std::istringstream split(line);
        std::vector<std::string> words;
        for (std::string word; split >> word;) {
            words.push_back(word);
        }
        if (words.empty()) {
            continue;
        }
        ProfileEvent event;
        event.line = number;
        std::string why;
        size_t commandAt = 1;
        if (words[0] == "every") {
            if (words.size() < 2 || !toNumber(words[1], event.everyS) || event.everyS <= 0.0) {
                why = "every takes a period > 0 s";
            }
            commandAt = 2;
            if (why.empty() && words.size() > 2 && words[2] == "from") {
                if (words.size() < 4 || !toNumber(words[3], event.atS) || event.atS < 0.0) {
                    why = "from takes a time >= 0 s";
                }
                commandAt = 4;
            }
        } else if (!toNumber(words[0], event.atS) || event.atS < 0.0) {
            why = "a line starts with a time >= 0 s or 'every'";
        }
        if (why.empty() && parseCommand(words, commandAt, event, why) && event.everyS > 0.0 &&
            event.kind == ProfileEvent::Kind::End) {
            why = "end cannot repeat";
        }
        if (!why.empty()) {
            error = "line " + std::to_string(number) + ": " + why;
            return false;
        }
        profile.events.push_back(event);
    }
    return true;
}

const char* defaultProfileText()
{
    return R"(# The host tool's built-in profile: a level cruise at 2 m.
0    sensing on
0    armed 1
0    height 2.0
0    pitch 0
0    speed 1.5 0 0
1    version
)";
}

}  // namespace host
