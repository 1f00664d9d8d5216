#include "inifile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <unordered_set>

#include "uniquefd.h"

namespace {

constexpr std::string_view kWhiteSpace = " \t\n\r\f\v";
constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
constexpr mode_t kNewFileMode = 0644;

/// What one line of a file is to the reader.
struct Line {
    enum Kind {
        KEPT,     ///< blank or comment: ignored when reading, kept when merging
        IGNORED,  ///< anything the reader skips; dropped when merging
        SECTION,
        KEY,
    };
    Kind kind = IGNORED;
    std::string name;       ///< folded section name or key
    std::string value;      ///< trimmed value of a key line
    size_t valueBegin = 0;  ///< [valueBegin, valueEnd): the value in the raw line
    size_t valueEnd = 0;
};

bool startsWith(std::string_view text, std::string_view prefix) { return text.substr(0, prefix.size()) == prefix; }

/// Calls lineFunction for every "\n"-separated line of text, the line feed
/// excluded. An empty text has no lines; a text ending in "\n" ends with an
/// empty line.
template <typename Function>
void forEachLine(std::string_view text, Function lineFunction)
{
    if (text.empty()) {
        return;
    }
    for (;;) {
        const size_t end = text.find('\n');
        lineFunction(text.substr(0, end));
        if (end == std::string_view::npos) {
            return;
        }
        text.remove_prefix(end + 1);
    }
}

Line classify(std::string_view raw)
{
    Line line;
    const size_t first = raw.find_first_not_of(kWhiteSpace);
    if (first == std::string_view::npos) {
        line.kind = Line::KEPT;
        return line;
    }
    const size_t last = raw.find_last_not_of(kWhiteSpace);
    const std::string_view text = raw.substr(first, last + 1 - first);
    if (text.front() == ';') {
        line.kind = Line::KEPT;
        return line;
    }
    if (text.front() == '[') {
        const std::string_view beforeComment = text.substr(0, text.find(';'));
        const size_t close = beforeComment.rfind(']');
        if (close != std::string_view::npos) {
            line.kind = Line::SECTION;
            line.name = IniFile::fold(IniFile::trim(beforeComment.substr(1, close - 1)));
            return line;
        }
    }
    std::string key;
    size_t equals = 0;
    for (; equals < text.size() && text[equals] != '='; ++equals) {
        if (text[equals] == '\\' && equals + 1 < text.size() && text[equals + 1] == '=') {
            ++equals;
        }
        key.push_back(text[equals]);
    }
    key = IniFile::fold(IniFile::trim(key));
    if (equals == text.size() || key.empty()) {
        return line;
    }
    line.kind = Line::KEY;
    line.name = std::move(key);
    const size_t afterEquals = first + equals + 1;
    const size_t valueFirst = raw.find_first_not_of(kWhiteSpace, afterEquals);
    if (valueFirst == std::string_view::npos) {
        // An empty value sits after the blanks that follow "=", before any
        // line-ending white space such as a carriage return.
        line.valueBegin = raw.find_first_not_of(" \t", afterEquals);
        line.valueBegin = line.valueBegin == std::string_view::npos ? raw.size() : line.valueBegin;
        line.valueEnd = line.valueBegin;
    } else {
        line.valueBegin = valueFirst;
        line.valueEnd = last + 1;
        line.value = std::string(raw.substr(valueFirst, line.valueEnd - valueFirst));
    }
    return line;
}

std::string keyLine(const std::string& key, const std::string& value)
{
    std::string line;
    for (char c : key) {
        if (c == '=') {
            line.push_back('\\');
        }
        line.push_back(c);
    }
    return line + " = " + value;
}

std::string joinLines(const std::vector<std::string>& lines)
{
    std::string text;
    for (size_t i = 0; i < lines.size(); ++i) {
        text += i == 0 ? "" : "\n";
        text += lines[i];
    }
    return text;
}

bool readAll(int fd, std::string& out)
{
    char chunk[65536];
    for (;;) {
        const ssize_t n = ::read(fd, chunk, sizeof chunk);
        if (n > 0) {
            out.append(chunk, static_cast<size_t>(n));
        } else if (n == 0) {
            return true;
        } else if (errno != EINTR) {
            return false;
        }
    }
}

bool writeAll(int fd, std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t n = ::write(fd, bytes.data(), bytes.size());
        if (n > 0) {
            bytes.remove_prefix(static_cast<size_t>(n));
        } else if (n < 0 && errno != EINTR) {
            return false;
        }
    }
    return true;
}

std::string directoryOf(const std::string& path)
{
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos) {
        return ".";
    }
    return slash == 0 ? "/" : path.substr(0, slash);
}

/// Puts content at path through a temporary file beside it and rename(2).
bool replaceFile(const std::string& path, std::string_view content, mode_t mode)
{
    const std::string directory = directoryOf(path);
    const size_t slash = path.rfind('/');
    std::string temporary = (slash == std::string::npos ? std::string() : path.substr(0, slash + 1)) + "." +
                            path.substr(slash == std::string::npos ? 0 : slash + 1) + ".XXXXXX";
    UniqueFd out(mkostemp(temporary.data(), O_CLOEXEC));
    if (!out.isValid()) {
        return false;
    }
    bool ok = writeAll(out.get(), content) && fchmod(out.get(), mode) == 0 && fsync(out.get()) == 0;
    ok = out.close() == 0 && ok;
    ok = ok && ::rename(temporary.c_str(), path.c_str()) == 0;
    if (!ok) {
        ::unlink(temporary.c_str());
        return false;
    }
    // The rename itself survives a power cut only once the directory is on
    // disk; the file is already complete, so this step is best effort.
    UniqueFd dir(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (dir.isValid()) {
        fsync(dir.get());
    }
    return true;
}

}  // namespace

std::string_view IniFile::trim(std::string_view text)
{
    const size_t first = text.find_first_not_of(kWhiteSpace);
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(kWhiteSpace) + 1 - first);
}

std::string IniFile::fold(std::string_view text)
{
    std::string folded(text);
    for (char& c : folded) {
        if (c >= 'A' && c <= 'Z') {
            c = static_cast<char>(c - 'A' + 'a');
        }
    }
    return folded;
}

std::string IniFile::Section::get(std::string_view key) const
{
    const auto found = m_index.find(fold(trim(key)));
    return found == m_index.end() ? std::string() : m_items[found->second].second;
}

bool IniFile::Section::has(std::string_view key) const { return m_index.count(fold(trim(key))) != 0; }

void IniFile::Section::set(std::string_view key, std::string_view value)
{
    std::string folded = fold(trim(key));
    const auto [place, inserted] = m_index.emplace(folded, m_items.size());
    if (inserted) {
        m_items.emplace_back(std::move(folded), std::string(trim(value)));
    } else {
        m_items[place->second].second = std::string(trim(value));
    }
}

IniFile::Section& IniFile::operator[](std::string_view name)
{
    std::string folded = fold(trim(name));
    const auto [place, inserted] = m_index.emplace(folded, m_sections.size());
    if (inserted) {
        m_sections.emplace_back(std::move(folded), Section());
    }
    return m_sections[place->second].second;
}

const IniFile::Section* IniFile::find(std::string_view name) const
{
    const auto found = m_index.find(fold(trim(name)));
    return found == m_index.end() ? nullptr : &m_sections[found->second].second;
}

IniFile IniFile::parse(std::string_view text)
{
    IniFile ini;
    if (startsWith(text, kByteOrderMark)) {
        text.remove_prefix(kByteOrderMark.size());
    }
    Section* current = nullptr;  // stays valid: no section is inserted while it is used
    forEachLine(text, [&](std::string_view raw) {
        Line line = classify(raw);
        if (line.kind == Line::SECTION) {
            current = &ini[line.name];
        } else if (line.kind == Line::KEY && current != nullptr) {
            current->set(line.name, line.value);
        }
    });
    return ini;
}

std::string IniFile::render() const
{
    std::vector<std::string> lines;
    for (const auto& [name, section] : m_sections) {
        lines.push_back("[" + name + "]");
        for (const auto& [key, value] : section.items()) {
            lines.push_back(keyLine(key, value));
        }
    }
    return joinLines(lines);
}

std::string IniFile::mergeInto(std::string_view existing) const
{
    std::string bom;
    if (startsWith(existing, kByteOrderMark)) {
        bom = kByteOrderMark;
        existing.remove_prefix(kByteOrderMark.size());
    }
    const bool finalLineFeed = !existing.empty() && existing.back() == '\n';
    std::vector<std::pair<std::string_view, Line>> fileLines;
    forEachLine(existing, [&](std::string_view raw) { fileLines.emplace_back(raw, classify(raw)); });
    if (finalLineFeed) {
        fileLines.pop_back();  // the empty text after the last line feed is no line
    }
    std::unordered_map<std::string, std::unordered_set<std::string>> keysInFile;
    {
        const std::string* section = nullptr;
        for (const auto& [raw, line] : fileLines) {
            if (line.kind == Line::SECTION) {
                section = &line.name;
            } else if (line.kind == Line::KEY && section != nullptr) {
                keysInFile[*section].insert(line.name);
            }
        }
    }

    std::vector<std::string> kept;
    std::unordered_map<std::string, size_t> lastLineOfFirstOccurrence;  // section -> index in kept
    std::unordered_map<std::string, std::unordered_set<std::string>> keysWritten;
    const std::pair<std::string, Section>* current = nullptr;  // section of the file line being merged, if held
    bool firstOccurrence = false;
    for (const auto& [raw, line] : fileLines) {
        switch (line.kind) {
        case Line::KEPT:
            kept.emplace_back(raw);
            break;
        case Line::IGNORED:
            break;
        case Line::SECTION: {
            const auto held = m_index.find(line.name);
            current = held == m_index.end() ? nullptr : &m_sections[held->second];
            if (current != nullptr) {
                kept.emplace_back(raw);
                firstOccurrence = lastLineOfFirstOccurrence.emplace(line.name, kept.size() - 1).second;
            }
            break;
        }
        case Line::KEY:
            if (current == nullptr || !current->second.has(line.name) ||
                !keysWritten[current->first].insert(line.name).second) {
                break;
            }
            if (const std::string value = current->second.get(line.name); value == line.value) {
                kept.emplace_back(raw);
            } else {
                kept.push_back(std::string(raw.substr(0, line.valueBegin)) + value +
                               std::string(raw.substr(line.valueEnd)));
            }
            if (firstOccurrence) {
                lastLineOfFirstOccurrence[current->first] = kept.size() - 1;
            }
            break;
        }
    }

    std::unordered_map<size_t, const std::pair<std::string, Section>*> missingKeysAfter;
    for (const auto& entry : m_sections) {
        const auto found = lastLineOfFirstOccurrence.find(entry.first);
        if (found != lastLineOfFirstOccurrence.end()) {
            missingKeysAfter[found->second] = &entry;
        }
    }
    std::vector<std::string> merged;
    for (size_t i = 0; i < kept.size(); ++i) {
        merged.push_back(std::move(kept[i]));
        const auto found = missingKeysAfter.find(i);
        if (found == missingKeysAfter.end()) {
            continue;
        }
        const auto& [name, section] = *found->second;
        const auto& present = keysInFile[name];
        for (const auto& [key, value] : section.items()) {
            if (present.count(key) == 0) {
                merged.push_back(keyLine(key, value));
            }
        }
    }
    for (const auto& [name, section] : m_sections) {
        if (lastLineOfFirstOccurrence.count(name) == 0) {
            merged.push_back("[" + name + "]");
            for (const auto& [key, value] : section.items()) {
                merged.push_back(keyLine(key, value));
            }
        }
    }
    return bom + joinLines(merged) + (finalLineFeed ? "\n" : "");
}

bool IniFile::read(const std::string& path)
{
    if (path.empty()) {
        return false;
    }
    UniqueFd in(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::string bytes;
    if (!in.isValid() || !readAll(in.get(), bytes)) {
        return false;
    }
    *this = parse(bytes);
    return true;
}

bool IniFile::write(const std::string& path) const
{
    if (path.empty()) {
        return false;
    }
    UniqueFd in(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!in.isValid()) {
        return errno == ENOENT && replaceFile(path, render(), kNewFileMode);
    }
    struct stat status {};
    std::string existing;
    if (fstat(in.get(), &status) != 0 || !readAll(in.get(), existing)) {
        return false;
    }
    return replaceFile(path, mergeInto(existing), status.st_mode & 07777);
}
