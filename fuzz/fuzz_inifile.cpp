// Arbitrary bytes through the INI reader and writer, as a corrupted or
// hand-edited binocular.ini or visionSwitch.ini could hold them.
//
// Input: the text of a structure to write, then a NUL byte, then the text of
// the file already on disk (no NUL: no file, the structure is written fresh).
// Checked: parsing never fails; a fresh file and a file merged onto the text
// it was read from parse back to exactly the structure (every section, key
// and value, in order); merged onto another file, the structure reads back
// with the same sections, keys and values (in the file's order), and merging
// it onto its own output changes nothing.

#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "fuzzcheck.h"
#include "inifile.h"

namespace {

/// The same sections, keys and values, in any order.
bool sameContent(const IniFile& a, const IniFile& b)
{
    if (a.sections().size() != b.sections().size()) {
        return false;
    }
    for (const auto& [name, section] : a.sections()) {
        const IniFile::Section* other = b.find(name);
        if (other == nullptr || other->items().size() != section.items().size()) {
            return false;
        }
        for (const auto& [key, value] : section.items()) {
            if (!other->has(key) || other->get(key) != value) {
                return false;
            }
        }
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    const size_t nul = input.find('\0');
    const std::string_view structureText = input.substr(0, nul);
    const IniFile structure = IniFile::parse(structureText);

    const std::string fresh = structure.render();
    check(IniFile::parse(fresh) == structure);

    const IniFile own = IniFile::parse(input);
    check(IniFile::parse(own.mergeInto(input)) == own);

    if (nul != std::string_view::npos) {
        const std::string merged = structure.mergeInto(input.substr(nul + 1));
        check(sameContent(IniFile::parse(merged), structure));
        check(structure.mergeInto(merged) == merged);
    }
    return 0;
}
