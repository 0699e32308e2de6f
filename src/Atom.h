/// @file
/// The base of every box (ISO/IEC 14496-12, 4.2) and the one place where box headers, size
/// placeholders and size patches are handled.
///
/// | offset | bytes | field                                          |
/// | 0      | 4     | size of the box with this header               |
/// | 4      | 4     | type                                           |
/// | 8      | 1 + 3 | version and flags, in a full box               |
///
/// A box lists its fields once, in a member template `Put(out)` that runs over the real stream
/// when the box is written and over a ByteCounter when its size is asked for.
#ifndef KX_MP4_ATOM_H
#define KX_MP4_ATOM_H

#include <cstdint>

#include "BaseIO.h"

namespace kx_mp4 {

/// Has the writers' vocabulary and counts instead of writing.
class ByteCounter {
public:
    constexpr void WriteInt8(uint8_t) { m_size += 1; }
    constexpr void WriteInt16(uint16_t) { m_size += 2; }
    constexpr void WriteInt24(uint32_t) { m_size += 3; }
    constexpr void WriteInt32(uint32_t) { m_size += 4; }
    constexpr void WriteInt64(uint64_t) { m_size += 8; }
    constexpr void WriteTag(FourCC) { m_size += 4; }
    constexpr void WriteBuf(const void*, uint32_t cbBuf) { m_size += cbBuf; }
    constexpr uint32_t size() const { return m_size; }

private:
    uint32_t m_size = 0;
};

/// Size and type.
constexpr uint32_t kBoxHeaderSize = 8;
/// Size, type, version and flags.
constexpr uint32_t kFullBoxHeaderSize = 12;

/// Keeps the low 32 bits on purpose: a field that is 32 bits wide in the file.
constexpr uint32_t Low32(int64_t value) {
    return static_cast<uint32_t>(value);
}
/// Keeps the low 16 bits on purpose.
constexpr uint16_t Low16(int64_t value) {
    return static_cast<uint16_t>(value);
}
/// Keeps the low 8 bits on purpose.
constexpr uint8_t Low8(int64_t value) {
    return static_cast<uint8_t>(value);
}

/// Header of a plain box; the size is a placeholder that is patched when the content is out.
template <class Out>
constexpr void PutBoxHeader(Out& out, FourCC type) {
    out.WriteInt32(kBoxHeaderSize);
    out.WriteTag(type);
}

/// Header of a full box; the size is a placeholder.
template <class Out>
constexpr void PutFullBoxHeader(Out& out, FourCC type, uint8_t version = 0, uint32_t flags = 0) {
    out.WriteInt32(kFullBoxHeaderSize);
    out.WriteTag(type);
    out.WriteInt8(version);
    out.WriteInt24(flags);
}

/// A box whose content `put` lists, with its true size.
template <class Out, class Content>
constexpr void PutBox(Out& out, FourCC type, Content&& put) {
    ByteCounter content;
    put(content);
    out.WriteInt32(kBoxHeaderSize + content.size());
    out.WriteTag(type);
    put(out);
}

/// A time or duration: 64 bits in a version 1 box, else its low 32.
template <class Out>
constexpr void PutTime(Out& out, bool use64bitTime, int64_t value) {
    if (use64bitTime)
        out.WriteInt64(static_cast<uint64_t>(value));
    else
        out.WriteInt32(Low32(value));
}

/// A 16.16 fixed-point number of a whole value.
constexpr uint32_t Fixed16_16(int64_t value) {
    return Low32(value * 0x10000);
}

/// Transformation matrix (ISO/IEC 14496-12, 6.2.2): rows (a b u) (c d v) (tx ty w), where u and v
/// are 0 and w is 1 as a 2.30 number. The translation is given in 16.16.
template <class Out>
constexpr void PutMatrix(Out& out, int16_t a, int16_t b, int16_t c, int16_t d, uint32_t tx,
                         uint32_t ty) {
    constexpr uint32_t kOne2_30 = 0x40000000;
    out.WriteInt32(Fixed16_16(a));
    out.WriteInt32(Fixed16_16(b));
    out.WriteInt32(0);
    out.WriteInt32(Fixed16_16(c));
    out.WriteInt32(Fixed16_16(d));
    out.WriteInt32(0);
    out.WriteInt32(tx);
    out.WriteInt32(ty);
    out.WriteInt32(kOne2_30);
}

/// Unity matrix: shown as it is.
template <class Out>
constexpr void PutUnityMatrix(Out& out) {
    PutMatrix(out, 1, 0, 0, 1, 0, 0);
}

}  // namespace kx_mp4

/// A box that writes itself to `m_pWriter`, which is borrowed and must outlive it.
///
/// Boxes are not thread safe; they are used under the muxer's lock. Failures of the writer pass
/// through as exceptions; a size that was predicted wrongly is only a warning in the log.
class CMp4Atom {
public:
    explicit CMp4Atom(IBaseIO* pWriter);
    virtual ~CMp4Atom() = default;
    CMp4Atom(const CMp4Atom&) = delete;
    CMp4Atom& operator=(const CMp4Atom&) = delete;

    /// Writes the whole box, header included.
    virtual void Write() = 0;
    /// The number of bytes that Write would produce now.
    virtual uint32_t GetSize() = 0;

    /// Replaces the writer, and the sink of the box's buffer with it.
    void setWriter(IBaseIO* pWriter);

protected:
    /// Patches the size of a box that began at `nStartPos` of the writer; with `check`, compares
    /// what was written with GetSize.
    void UpdateSize(int64_t nStartPos, bool check);
    /// The same in `m_buffer`, always checked.
    void UpdateBufferSize(int64_t nStartPos);

    /// Writer position as the 64-bit number that positions are kept in.
    int64_t WriterPos() { return static_cast<int64_t>(m_pWriter->Ftell()); }

    /// Write pattern of a container: header and content straight to the writer, size patched.
    template <class Content>
    void WriteContainer(kx_mp4::FourCC type, Content&& writeContent) {
        const int64_t start = WriterPos();
        kx_mp4::PutBoxHeader(*m_pWriter, type);
        writeContent();
        UpdateSize(start, true);
    }

    /// Write pattern of a leaf: the fields into the buffer, size patched there, one flush.
    template <class Box>
    void WriteLeaf(const Box& box) {
        FillBuffer([&] {
            const auto start = static_cast<int64_t>(m_buffer.Ftell());
            box.Put(m_buffer);
            UpdateBufferSize(start);
        });
    }

    /// Write pattern of a header with children: the fields into the buffer and out, the children
    /// straight to the writer, size patched there.
    template <class Fields, class Children>
    void WriteHeadAndChildren(bool check, Fields&& putFields, Children&& writeChildren) {
        const int64_t start = WriterPos();
        FillBuffer([&] { putFields(m_buffer); });
        writeChildren();
        UpdateSize(start, check);
    }

    /// Runs `fill` and hands the buffer to the writer. Whatever throws leaves the buffer empty.
    template <class Fill>
    void FillBuffer(Fill&& fill) {
        try {
            fill();
            m_buffer.Flush();
        } catch (...) {
            m_buffer.Clear();
            throw;
        }
    }

    IBaseIO* m_pWriter;
    CBufferIO m_buffer;

private:
    void CheckSize(int64_t written);
};

namespace kx_mp4 {

/// Size of whatever `put` writes.
template <class PutFields>
uint32_t CountBytes(PutFields&& put) {
    ByteCounter counter;
    put(counter);
    return counter.size();
}

/// Size of a box whose list of fields is static: at compile time, in the form that the arguments
/// choose.
template <class Box, class... Form>
constexpr uint32_t SizeOf(Form... form) {
    ByteCounter counter;
    Box::Put(counter, form...);
    return counter.size();
}

/// A box that is one list of fields, `template <class Out> void Put(Out& out) const`, static where
/// nothing of it depends on the object.
template <class Box>
class FieldsAtom : public CMp4Atom {
public:
    using CMp4Atom::CMp4Atom;

    uint32_t GetSize() override {
        return CountBytes([this](auto& out) { Self().Put(out); });
    }

protected:
    const Box& Self() const { return static_cast<const Box&>(*this); }
};

/// Fields into the buffer, size patched there, one write.
template <class Box>
class LeafAtom : public FieldsAtom<Box> {
public:
    using FieldsAtom<Box>::FieldsAtom;

    void Write() override { this->WriteLeaf(this->Self()); }
};

/// Fields straight to the writer; the list holds the true size.
template <class Box>
class ConstantAtom : public FieldsAtom<Box> {
public:
    using FieldsAtom<Box>::FieldsAtom;

    void Write() override { this->Self().Put(*this->m_pWriter); }
};

/// Fields straight to the writer, size patched there.
template <class Box>
class DirectAtom : public FieldsAtom<Box> {
public:
    using FieldsAtom<Box>::FieldsAtom;

    void Write() override {
        const int64_t start = this->WriterPos();
        this->Self().Put(*this->m_pWriter);
        this->UpdateSize(start, true);
    }
};

/// Sum of the sizes of what `forEachChild` visits.
template <class ForEachChild>
uint32_t SizeOfChildren(ForEachChild&& forEachChild) {
    uint32_t size = 0;
    forEachChild([&size](auto& child, auto...) { size += child.GetSize(); });
    return size;
}

/// A plain container: a header and the children that `template <class F> void ForEachChild(F&& f)`
/// lists in their order; a child that a virtual operation of the container writes, with it.
template <class Box>
class ContainerAtom : public CMp4Atom {
public:
    using CMp4Atom::CMp4Atom;

    void Write() override {
        WriteContainer(Box::kType, [this] {
            Box& self = static_cast<Box&>(*this);
            self.ForEachChild([&self]([[maybe_unused]] auto& child, auto... write) {
                if constexpr (sizeof...(write) == 0)
                    child.Write();
                else
                    ((self.*write)(), ...);
            });
        });
    }
    uint32_t GetSize() override {
        return kBoxHeaderSize + SizeOfChildren([this](auto&& visit) {
                   static_cast<Box&>(*this).ForEachChild(visit);
               });
    }
};

}  // namespace kx_mp4

#endif  // KX_MP4_ATOM_H
