/// @file
/// In which of its forms a box is written.
#ifndef KX_MP4_FILEFORM_H
#define KX_MP4_FILEFORM_H

namespace kx_mp4 {

/// The usual form is the same in both kinds of file where they could differ; the strict ones follow
/// the standard of their kind to the letter (CMp4Muxer::SetStrictForm).
enum class FileForm {
    kUsual,
    kStrictQuickTime,
    kStrictMp4,
};

}  // namespace kx_mp4

#endif  // KX_MP4_FILEFORM_H
