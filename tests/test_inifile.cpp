#include <gtest/gtest.h>

#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "inifile.h"
#include "test_support.h"

namespace fs = std::filesystem;

namespace {

std::string slurp(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

void put(const std::string& path, const std::string& bytes) { std::ofstream(path, std::ios::binary) << bytes; }

}  // namespace

// Given a file's text, when it is parsed, then one section/key pair holds the
// value (nullptr: the key is absent).
TEST(IniFileSyntax, EachLineKindReadsAsDocumented)
{
    struct Case {
        const char* text;
        const char* section;
        const char* key;
        const char* value;
    } cases[] = {
        {"[Common]\n  EnableFront = 0 \r\n", "common", "enablefront", "0"},
        {"[common]\n\t\vKey\f=\tMixed Case \n", "COMMON", " KEY ", "Mixed Case"},
        {"[common]\nvisionSwitch = 1 ; on", "common", "visionswitch", "1 ; on"},
        {"[common]\n#note = 2", "common", "#note", "2"},
        {"[common]\n;note = 2", "common", ";note", nullptr},
        {"orphan = 1\n[common]", "common", "orphan", nullptr},
        {"[a]\nk = 1\n[b]\nk = 2\n[A]\nk = 3\nj = 4", "a", "k", "3"},
        {"[a]\nk = 1\n[b]\nk = 2\n[A]\nk = 3\nj = 4", "a", "j", "4"},
        {"[a]\nk = 1\n[b]\nk = 2\n[A]\nk = 3\nj = 4", "b", "k", "2"},
        {"\xEF\xBB\xBF[common]\nk = 1", "common", "k", "1"},
        {"[common]\nk\\=v = 1", "common", "k=v", "1"},
        {"[common]\nk\\\\=v = 1", "common", "k\\=v", "1"},
        {"[common]\nno separator\\= here", "common", "no separator= here", nullptr},
        {"[common]\n[open = 1", "common", "[open", "1"},
        {"[common]\n[other ; comment]\nk = 1", "common", "k", "1"},
        {"[ Spaced ] tail\nk =", "spaced", "k", ""},
        {"[a]b]\nk = 1", "a]b", "k", "1"},
        {"[common]\n= 1", "common", "", nullptr},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        IniFile ini = IniFile::parse(c.text);
        ASSERT_TRUE(ini.has(c.section));
        const IniFile::Section& section = ini[c.section];
        EXPECT_EQ(section.has(c.key), c.value != nullptr);
        EXPECT_EQ(section.get(c.key), c.value ? c.value : "");
        EXPECT_EQ(ini.sections().size(), std::string(c.text).find("[b]") != std::string::npos ? 2u : 1u);
    }
}

TEST(IniFileWrite, FreshFileIsPrettyPrintedWithoutFinalLineFeed)
{
    IniFile ini;
    ini["Common"].set(" VisionSwitch ", "1");
    ini["front"].set("a=b", "x y");
    EXPECT_EQ(ini.render(), "[common]\nvisionswitch = 1\n[front]\na\\=b = x y");
    EXPECT_FALSE(ini.has("down"));
    EXPECT_EQ(IniFile::parse(ini.render()), ini);
}

// Given a file and the structure to write (as INI text), when the structure
// is merged onto the file, then the result is byte for byte as listed.
TEST(IniFileWrite, MergeKeepsTheFilesOwnTextWhereItCan)
{
    struct Case {
        const char* existing;
        const char* structure;
        const char* merged;
    } cases[] = {
        {"; switch\n[Common]\nVisionSwitch = 0\ngarbage\nother = 5\n\n[front]\nwidth = 640\n; end\n",
         "[common]\nvisionswitch = 1", "; switch\n[Common]\nVisionSwitch = 1\n\n; end\n"},
        {"[a]\n  K\t=  1  \r\n", "[a]\nk = 1", "[a]\n  K\t=  1  \r\n"},
        {"[a]\r\nk = 0\r\n", "[a]\nk = 1", "[a]\r\nk = 1\r\n"},
        {"[a]\nk =\r\n", "[a]\nk = 1", "[a]\nk =1\r\n"},
        {"[a]\nx = 1\n; next\n[b]\ny = 2", "[a]\nx = 1\nz = 3\n[b]\ny = 2\n[c]\nw = 4",
         "[a]\nx = 1\nz = 3\n; next\n[b]\ny = 2\n[c]\nw = 4"},
        {"[a]\nk=1\n[a]\nk=2\nj=3", "[a]\nk=2\nj=3", "[a]\nk=2\n[a]\nj=3"},
        {"\xEF\xBB\xBFjunk\n[a]\nk=0", "[a]\nk=1", "\xEF\xBB\xBF[a]\nk=1"},
        {"", "[a]\nk=1", "[a]\nk = 1"},
        {"\n", "", "\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.existing);
        const IniFile ini = IniFile::parse(c.structure);
        const std::string merged = ini.mergeInto(c.existing);
        EXPECT_EQ(merged, c.merged);
        EXPECT_EQ(IniFile::parse(merged), ini);
    }
}

// The file on disk: reading and writing fail without side effects, a rewrite
// keeps the permission bits and leaves no temporary file.
TEST(IniFileFiles, ReadAndWriteFailCleanlyAndReplaceWhole)
{
    testsupport::ScratchRoot scratch;
    IniFile ini = IniFile::parse("[common]\nk = 1");
    IniFile unchanged = ini;
    fs::create_directory("dir");
    for (const char* path : {"", "missing.ini", "dir"}) {
        EXPECT_FALSE(unchanged.read(path)) << path;
        EXPECT_EQ(unchanged, ini);
    }
    for (const char* path : {"", "nodir/new.ini", "dir"}) {
        EXPECT_FALSE(ini.write(path)) << path;
    }
    EXPECT_FALSE(fs::exists("nodir"));

    ASSERT_TRUE(ini.write("new.ini"));
    EXPECT_EQ(fs::status("new.ini").permissions(), fs::perms(0644));
    put("kept.ini", "; mine\n[common]\nk = 0\n");
    fs::permissions("kept.ini", fs::perms(0600));
    ASSERT_TRUE(ini.write(scratch.path() + "/kept.ini"));
    EXPECT_EQ(slurp("kept.ini"), "; mine\n[common]\nk = 1\n");
    EXPECT_EQ(fs::status("kept.ini").permissions(), fs::perms(0600));
    IniFile back;
    ASSERT_TRUE(back.read("kept.ini"));
    EXPECT_EQ(back, ini);
    EXPECT_EQ(std::distance(fs::directory_iterator("."), fs::directory_iterator()), 3);  // dir, new, kept
}

// A write that runs out of space mid-file leaves the old file whole: the
// child's file size limit stops the temporary file, not the real one.
TEST(IniFileDurability, FailedWriteLeavesTheOldFileWhole)
{
    testsupport::ScratchRoot scratch;
    put("switch.ini", "[common]\nvisionSwitch = 0\n");
    const auto child = testsupport::runInChild([] {
        signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{64, 64};
        setrlimit(RLIMIT_FSIZE, &limit);
        IniFile ini;
        ini["common"].set("visionSwitch", std::string(200, '1'));
        std::printf("write=%d\n", ini.write("switch.ini"));
    });
    ASSERT_TRUE(child.exited) << child.output;
    EXPECT_NE(child.output.find("write=0"), std::string::npos) << child.output;
    EXPECT_EQ(slurp("switch.ini"), "[common]\nvisionSwitch = 0\n");
    EXPECT_EQ(std::distance(fs::directory_iterator("."), fs::directory_iterator()), 1);
}
