// Arbitrary bytes as a host tool profile, as a hand-edited or corrupted file
// could hold them.
// Checked: parsing never crashes; an accepted profile has only finite times,
// periods > 0 or 0, values of its commands' ranges and line numbers within
// the text; a refused one names a line; parsing is deterministic.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "fuzzcheck.h"
#include "hostprofile.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    host::Profile profile;
    std::string error;
    const bool accepted = host::parseProfile(text, profile, error);
    host::Profile again;
    std::string againError;
    check(host::parseProfile(text, again, againError) == accepted && againError == error);
    if (!accepted) {
        check(error.rfind("line ", 0) == 0);
        return 0;
    }
    const size_t lines = static_cast<size_t>(std::count(text.begin(), text.end(), '\n')) + 1;
    for (const host::ProfileEvent& event : profile.events) {
        check(std::isfinite(event.atS) && event.atS >= 0.0);
        check(std::isfinite(event.everyS) && event.everyS >= 0.0);
        check(event.line >= 1 && static_cast<size_t>(event.line) <= lines);
        check(event.valueCount >= 0 && event.valueCount <= 3);
        for (int i = 0; i < event.valueCount; ++i) {
            check(std::isfinite(event.values[i]));
        }
        if (event.kind == host::ProfileEvent::Kind::Armed) {
            check(event.values[0] >= 0.0 && event.values[0] <= 255.0);
        }
    }
    return 0;
}
