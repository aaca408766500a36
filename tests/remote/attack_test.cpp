// What hosts, files and operators can do to the remote side, and what they are told.
#include <sys/fsuid.h>
#include <sys/stat.h>

#include <tuple>

#include "DiskTest.h"

namespace remote::test {
namespace {

// `text` says `what`.
void ExpectIn(const std::string& text, const std::string& what) {
    EXPECT_NE(text.find(what), std::string::npos) << "no '" << what << "' in '" << text << "'";
}

class AttackedDisk : public DiskTest {
  protected:
    // Returns what is wrong, or nothing.
    std::string Open(bool read_only) const {
        std::string error;
        const bool opened = DiskImage::Open(path_, read_only, error).has_value();
        EXPECT_EQ(opened, error.empty());
        return error;
    }
};

TEST_F(AttackedDisk, WhoWritesToAnImageIsAlone) {
    const std::tuple<bool, bool, const char*> cases[] = {
        {false, false, ": in use, by another program"},
        {false, true, ": in use by somebody who writes"},
        {true, false, ": in use, by another program"},
    };
    for (const auto& [first_reads, second_reads, error] : cases) {
        Plug(first_reads);
        ExpectIn(Open(second_reads), path_ + error);
    }
    Plug(true);
    EXPECT_EQ(Open(true), "");
    disk_.reset();
    EXPECT_EQ(Open(false), "");
}

TEST_F(AttackedDisk, WhoMayOnlyReadIsToldHow) {
    disk_.reset();
    fchmod(file_.Get(), S_IRUSR | S_IRGRP | S_IROTH);
    const int user = setfsuid(65534);  // root may do everything
    const std::string error = Open(false);
    setfsuid(static_cast<uid_t>(user));
    ExpectIn(error, ",ro");
    std::string missing;
    EXPECT_FALSE(DiskImage::Open("/nowhere", false, missing));
    EXPECT_EQ(missing, "/nowhere: No such file or directory");
}

}  // namespace
}  // namespace remote::test
