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
using ::testing::Not;

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
    // Pictures of type CRA show that the second has composition offsets.
    for (const char* sample : {"h264.h264", "reordered.hevc"}) {
        Record(sample);
        const Outcome copy = Repair("");
        EXPECT_EQ(copy.code, 0);
        EXPECT_THAT(copy.errors, IsEmpty());
        EXPECT_THAT(copy.out, AllOf(HasSubstr("cut.mp4: repaired, whole\n"),
                                    HasSubstr("output: " + m_folder.Path("cut.repaired.mp4")),
                                    HasSubstr("video: 75 frames kept"),
                                    Not(HasSubstr("--composition-offsets"))));
        EXPECT_TRUE(ReadFile(m_folder.Path("cut.repaired.mp4")) == m_whole);
        const Outcome inPlace = Repair("--in-place --no-composition-offsets", "KX_MP4_LOG=1");
        EXPECT_EQ(inPlace.code, 0);
        EXPECT_THAT(inPlace.errors, HasSubstr("write without track data"));  // there is no audio
        EXPECT_EQ(inPlace.out.find("made with composition offsets") != std::string::npos,
                  std::string(sample) == "reordered.hevc");
        EXPECT_TRUE(ReadFile(Path()) == m_whole);
        EXPECT_FALSE(HasInfo());
    }
}

TEST_F(Kxrepair, AsksWhetherThereWereCompositionOffsetsAndTakesTheAnswerLater) {
    Record("reordered.h264");
    const Outcome asking = Repair("--in-place");
    EXPECT_EQ(asking.code, 0);
    EXPECT_THAT(asking.out, AllOf(HasSubstr("repair it again with --composition-offsets"),
                                  HasSubstr("cut.mp4.info is kept until then")));
    EXPECT_FALSE(ReadFile(Path()) == m_whole);
    ASSERT_TRUE(HasInfo());
    const Outcome answered = Repair("--in-place --composition-offsets --json");
    EXPECT_EQ(answered.code, 0);
    EXPECT_THAT(answered.out,
                AllOf(HasSubstr("\"outcome\": \"whole\""), HasSubstr("\"frames_kept\": 75"),
                      HasSubstr("\"composition_offsets\": true"),
                      HasSubstr("\"frames_of_unclear_time\": 0")));
    EXPECT_TRUE(ReadFile(Path()) == m_whole);
    EXPECT_FALSE(HasInfo());
}

TEST_F(Kxrepair, TellsOfALossAndOfWhatCannotBeRepaired) {
    Record("reordered.h264");
    std::filesystem::resize_file(Path(), 20000);
    const Outcome loss = Repair("--in-place --no-composition-offsets");
    EXPECT_EQ(loss.code, 1);
    EXPECT_THAT(loss.out, AllOf(HasSubstr("with loss: record at byte "),
                                HasSubstr("it points past the end of the media data"),
                                Not(HasSubstr("presentation time"))));
    EXPECT_FALSE(HasInfo());
    const Outcome failed = Repair("--in-place");
    EXPECT_EQ(failed.code, 2);
    EXPECT_THAT(failed.out, HasSubstr("not repaired: cannot open '" + Path() + ".info'"));
    EXPECT_EQ(Repair("--in-place -o other.mp4").code, 2);
}

}  // namespace
