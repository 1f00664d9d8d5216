#pragma once
// The INI dialect of binocular.ini and /run/visionSwitch.ini: an ordered list
// of sections, each an ordered list of key/value texts, read from and written
// back to a file.
//
// Reading (parse):
// - Lines end at "\n". Every line, section name, key and value is trimmed of
//   blank, tab, line feed, carriage return, form feed and vertical tab.
// - A leading UTF-8 byte-order mark (EF BB BF) is skipped.
// - ";" as the first character of a trimmed line makes it a comment; "#" is
//   ordinary text.
// - A line starting with "[" is a section line when, after cutting it at its
//   first ";", it still holds a "]": the name is the trimmed text between the
//   "[" and the last "]". A repeated section merges into its first occurrence.
// - Otherwise a line with an "=" is a key line: the key is the text before
//   the first "=" not written "\=" ("\=" in a key stands for "="), the value
//   everything after it (";" included). A later line of the same key wins.
//   Key lines before the first section, and key lines with an empty key, are
//   ignored.
// - Section names and keys are folded to lower case (ASCII) when stored and
//   when looked up; values keep their case. Any other line is ignored.
//
// Writing (write): a file that does not exist is generated (render): per
// section a "[name]" line, then "key = value" lines, lines joined by "\n" with
// none after the last. Onto an existing file the structure is merged
// (mergeInto): comment and blank lines stay in place; a key line keeps its
// text and only its value is replaced when the value changed; key lines of
// keys the structure lacks, and the section and key lines of sections it
// lacks, are left out, and so is every line the reader ignores; a missing key
// goes after the last kept key line of its section's first occurrence, a
// missing section at the end. Either way the new content replaces the file
// atomically: a reader sees the old file or the new one, never a mix.
//
// Keys and values set by a program are trimmed; a value holding a line feed
// cannot be written so that it reads back the same.
//
// Thread-safety: none; an object belongs to one thread at a time.

#include <cstddef>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

class IniFile {
public:
    /// One section's keys in the order they were first seen.
    class Section {
    public:
        /// The value of key (trimmed and folded first), or "" when absent.
        /// Never inserts.
        std::string get(std::string_view key) const;
        bool has(std::string_view key) const;
        /// Stores value under key (both trimmed, the key folded); a key that
        /// exists keeps its place.
        void set(std::string_view key, std::string_view value);

        const std::vector<std::pair<std::string, std::string>>& items() const { return m_items; }

        friend bool operator==(const Section& a, const Section& b) { return a.m_items == b.m_items; }

    private:
        std::vector<std::pair<std::string, std::string>> m_items;
        std::unordered_map<std::string, size_t> m_index;  ///< folded key -> position in m_items
    };

    /// The section called name (trimmed and folded), inserted empty at the
    /// end when there is none.
    Section& operator[](std::string_view name);
    /// The section called name, or nullptr; never inserts.
    const Section* find(std::string_view name) const;
    bool has(std::string_view name) const { return find(name) != nullptr; }

    const std::vector<std::pair<std::string, Section>>& sections() const { return m_sections; }

    /// The structure that text holds; never fails.
    static IniFile parse(std::string_view text);

    /// The file generated from scratch.
    std::string render() const;

    /// existing (a whole file's bytes) with this structure merged onto it.
    std::string mergeInto(std::string_view existing) const;

    /// Replaces the content with the parsed file. False, content unchanged,
    /// when path is empty or the file cannot be opened or read.
    bool read(const std::string& path);

    /// Writes the structure to path: merged onto the file when it exists,
    /// generated when it does not. The new bytes go to a temporary file in the
    /// same directory, reach the disk, and then replace path by rename(2); a
    /// replaced file's permission bits are kept, a new file gets 0644. False,
    /// with path untouched and no temporary file left, when path is empty, an
    /// existing file cannot be read, or any step of the replacement fails.
    bool write(const std::string& path) const;

    friend bool operator==(const IniFile& a, const IniFile& b) { return a.m_sections == b.m_sections; }

    /// Text without the six white-space characters at either end.
    static std::string_view trim(std::string_view text);
    /// Text with A-Z folded to a-z.
    static std::string fold(std::string_view text);

private:
    std::vector<std::pair<std::string, Section>> m_sections;
    std::unordered_map<std::string, size_t> m_index;  ///< folded name -> position in m_sections
};
