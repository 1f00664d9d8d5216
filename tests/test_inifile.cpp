#include <gtest/gtest.h>

#include <signal.h>
#include <sys/resource.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "inifile.h"
#include "test_support.h"

namespace fs = std::filesystem;

// Given a file's text, the structure read from it is the one that renders as
// listed: every section, key and value, nothing else, in order.
TEST(IniFileSyntax, EachLineKindReadsAsDocumented)
{
    const std::pair<const char*, const char*> cases[] = {
        {"[Common]\n\t\vKey\f=\tMixed Case \r\n", "[common]\nkey = Mixed Case"},
        {"[common]\nvisionSwitch = 1 ; on\n#note = 2\n;note = 3", "[common]\nvisionswitch = 1 ; on\n#note = 2"},
        {"[a]\nk = 1\n[b]\nk = 2\n[A]\nk = 3\nj = 4", "[a]\nk = 3\nj = 4\n[b]\nk = 2"},
    };
    for (const auto& [text, rendered] : cases) {
        SCOPED_TRACE(text);
        EXPECT_EQ(IniFile::parse(text).render(), rendered);
    }
    EXPECT_EQ(IniFile::parse("[Common]\nKey = v")[" COMMON "].get(" KEY "), "v");
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
        {"[a]\r\nk = 0\r\n", "[a]\nk = 1", "[a]\r\nk = 1\r\n"},
        {"[a]\nx = 1\n; next\n[b]\ny = 2", "[a]\nx = 1\nz = 3\n[b]\ny = 2\n[c]\nw = 4",
         "[a]\nx = 1\nz = 3\n; next\n[b]\ny = 2\n[c]\nw = 4"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.existing);
        const IniFile ini = IniFile::parse(c.structure);
        const std::string merged = ini.mergeInto(c.existing);
        EXPECT_EQ(merged, c.merged);
        EXPECT_EQ(IniFile::parse(merged), ini);
    }
}

// A write replaces the file whole or not at all: a rewrite keeps the
// permission bits, a write stopped by the file size limit (in a child) leaves
// the old bytes, and no temporary file is ever left behind.
TEST(IniFileFiles, WriteReplacesTheFileWholeOrNotAtAll)
{
    testsupport::ScratchRoot scratch;
    const IniFile ini = IniFile::parse("[common]\nk = 1");
    std::ofstream("kept.ini") << "; mine\n[common]\nk = 0\n";
    fs::permissions("kept.ini", fs::perms(0600));
    ASSERT_TRUE(ini.write(fs::absolute("kept.ini").string()));
    const std::string kept = testsupport::readFile("kept.ini");
    EXPECT_EQ(kept, "; mine\n[common]\nk = 1\n");
    EXPECT_EQ(fs::status("kept.ini").permissions(), fs::perms(0600));

    const auto child = testsupport::runInChild([] {
        signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{64, 64};
        setrlimit(RLIMIT_FSIZE, &limit);
        IniFile big;
        big["common"].set("k", std::string(200, '1'));
        std::printf("write=%d\n", big.write("kept.ini"));
    });
    EXPECT_EQ(child.output, "write=0\n");
    EXPECT_EQ(testsupport::readFile("kept.ini"), kept);
    EXPECT_EQ(std::distance(fs::directory_iterator("."), fs::directory_iterator()), 1);  // kept only
}
