// The size protocol that every box follows.
#include <gtest/gtest.h>

#include "Atom.h"
#include "log_capture.h"
#include "movie_reader.h"

using kx_mp4::PutBoxHeader;

namespace {

/// A box with `content` bytes that predicts `predicted` bytes in all.
class CMp4ProbeAtom : public CMp4Atom {
public:
    enum Pattern { kContainer, kLeaf, kHead };

    CMp4ProbeAtom(IBaseIO* pWriter, Pattern pattern, uint32_t content, uint32_t predicted)
        : CMp4Atom(pWriter), m_pattern(pattern), m_content(content), m_predicted(predicted) {}

    void Write() override {
        if (m_pattern == kContainer) WriteContainer("prob", [this] { PutContent(*m_pWriter); });
        if (m_pattern == kLeaf) WriteLeaf(*this);
        if (m_pattern == kHead)
            WriteHeadAndChildren(
                true, [](IBaseIO& out) { PutBoxHeader(out, "prob"); },
                [this] { PutContent(*m_pWriter); });
    }
    uint32_t GetSize() override { return m_predicted; }

    template <class Out>
    void Put(Out& out) const {
        PutBoxHeader(out, "prob");
        PutContent(out);
    }

    bool throwInside = false;

private:
    template <class Out>
    void PutContent(Out& out) const {
        for (uint32_t i = 0; i < m_content; ++i)
            out.WriteInt8(0xCC);
        if (throwInside) throw 49;
    }

    Pattern m_pattern;
    uint32_t m_content;
    uint32_t m_predicted;
};

TEST(Atom, PatchesTheTrueSizeAndWarnsOfAWrongPrediction) {
    for (const auto pattern :
         {CMp4ProbeAtom::kContainer, CMp4ProbeAtom::kLeaf, CMp4ProbeAtom::kHead}) {
        LogCapture log;
        CBufferIO out;
        out.Init(nullptr);
        out.WriteInt32(0xFFFFFFFF);  // a box need not begin at 0
        CMp4ProbeAtom right(&out, pattern, 12, 20);
        right.Write();
        right.Write();
        EXPECT_TRUE(log.Complaints().empty());
        const Bytes box = Hex("00000014") + Bytes{'p', 'r', 'o', 'b'} + Bytes(12, 0xCC);
        EXPECT_EQ(BytesOf(out), Hex("ffffffff") + box + box);
        EXPECT_EQ(out.Ftell(), out.GetSize()) << "the next sibling follows directly";

        CMp4ProbeAtom wrong(&out, pattern, 20, 24);
        wrong.Write();
        ASSERT_EQ(log.Complaints().size(), 1U);
        const std::string warning = log.Complaints()[0];
        EXPECT_NE(warning.find("CMp4ProbeAtomE size expect 24, actual:28"), std::string::npos)
            << warning;
        EXPECT_EQ(BytesOf(out)[47], 28) << "the true size stays in the file";
    }
}

TEST(Atom, ABoxWhoseWritingThrowsLeavesItsBufferEmpty) {
    CBufferIO out;
    out.Init(nullptr);
    CMp4ProbeAtom box(&out, CMp4ProbeAtom::kLeaf, 4, 12);
    box.throwInside = true;
    EXPECT_THROW(box.Write(), int);
    EXPECT_EQ(out.GetSize(), 0U);
    box.throwInside = false;
    box.Write();
    EXPECT_EQ(BytesOf(out), Hex("0000000c 70726f62 cccccccc"));
}

}  // namespace
