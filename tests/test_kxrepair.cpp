// kxrepair as a whole: a recording by kxmux is cut off within its index, where the file may not
// grow any more, and has to become the file that kxmux makes when nothing happens.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "program_runner.h"
#include "scratch_folder.h"

using namespace program_runner;

namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class Kxrepair : public ::testing::Test {
protected:
    void Record(const std::string& sample) {
        const std::string options = " --overwrite --fps 25 --video " + Sample(sample);
        const std::string whole = m_folder.Path("whole.mp4");
        const std::string kxmux = std::string("'") + KXMUX_PATH + "' -o ";
        ASSERT_EQ(Execute(kxmux + whole + options).code, 0);
        m_whole = ReadFile(whole);
        const std::string blocks = std::to_string((m_whole.size() - 1) / 512);
        ASSERT_NE(Execute("ulimit -f " + blocks + " && exec " + kxmux + Path() + options).code, 0);
        ASSERT_LT(std::filesystem::file_size(Path()), m_whole.size());
        ASSERT_TRUE(HasInfo());
    }
    Outcome Repair(const std::string& options, const std::string& environment = "") const {
        return Execute(environment + " '" + KXREPAIR_PATH + "' " + options + " " + Path());
    }
    std::string Path() const { return m_folder.Path("cut.mp4"); }
    bool HasInfo() const { return std::filesystem::exists(Path() + ".info"); }

    ScratchFolder m_folder;
    std::string m_whole;
};

TEST_F(Kxrepair, MakesTheFinishedFileAndIsSilentUnlessTheLogIsAskedFor) {
    for (const char* sample : {"h264.h264", "reordered.h264", "reordered.hevc"}) {
        Record(sample);
        const Outcome copy = Repair("");
        EXPECT_EQ(copy.code, 0);
        EXPECT_THAT(copy.errors, IsEmpty());
        EXPECT_THAT(copy.out, AllOf(HasSubstr("cut.mp4: repaired, whole\n"),
                                    HasSubstr("output: " + m_folder.Path("cut.repaired.mp4")),
                                    HasSubstr("video: 75 frames kept")));
        EXPECT_TRUE(ReadFile(m_folder.Path("cut.repaired.mp4")) == m_whole) << sample;
        std::filesystem::remove(m_folder.Path("cut.repaired.mp4"));
        const Outcome inPlace = Repair("--in-place --json", "KX_MP4_LOG=1");
        EXPECT_EQ(inPlace.code, 0);
        EXPECT_THAT(inPlace.errors, HasSubstr("write without track data"));  // there is no audio
        EXPECT_THAT(inPlace.out,
                    AllOf(HasSubstr(R"("outcome":"whole")"), HasSubstr(R"("exit_status":0)"),
                          HasSubstr(R"("frames_kept":75)")));
        EXPECT_TRUE(ReadFile(Path()) == m_whole) << sample;
        EXPECT_FALSE(HasInfo());
    }
}

TEST_F(Kxrepair, TellsOfALossAndOfWhatCannotBeRepaired) {
    Record("reordered.h264");
    std::filesystem::resize_file(Path(), 20000);
    const std::string cut = ReadFile(Path());
    const Outcome loss = Repair("--in-place --json");
    EXPECT_EQ(loss.code, 1);
    EXPECT_THAT(loss.out, AllOf(HasSubstr(R"("outcome":"loss")"), HasSubstr(R"("exit_status":1)"),
                                HasSubstr("it points past the end of the media data"),
                                HasSubstr(R"("reason_time":"00:00:0)")));
    EXPECT_TRUE(HasInfo());
    EXPECT_EQ(ReadFile(Path()).substr(44, cut.size() - 44), cut.substr(44));
    const Outcome again = Repair("--in-place");
    EXPECT_EQ(again.code, 1);
    EXPECT_THAT(again.out, AllOf(HasSubstr("with a loss or a doubt at 00:00:0"),
                                 HasSubstr("without an index"), HasSubstr("cut.mp4.info is kept")));
    std::filesystem::resize_file(Path() + ".info", 5);
    const Outcome refused = Repair("--in-place");
    EXPECT_EQ(refused.code, 2);
    EXPECT_THAT(refused.out, HasSubstr("not repaired: no frame of the recording is explained"));
    std::filesystem::remove(Path() + ".info");
    EXPECT_EQ(Repair("--in-place").code, 2);
    EXPECT_EQ(Repair("--in-place -o other.mp4").code, 2);
}

}  // namespace
