/// @file
/// The report of a repair for people and for programs.
#ifndef KX_MP4_KXREPAIR_REPAIRREPORTTEXT_H
#define KX_MP4_KXREPAIR_REPAIRREPORTTEXT_H

#include <string>

#include "kx_mp4/repair.h"

/// Some lines of plain text.
std::string ReportAsText(const kx_mp4::RepairReport& report, const kx_mp4::RepairOptions& options);
/// One JSON object (RFC 8259) and a line feed. Bytes of paths that are not UTF-8 become U+FFFD.
std::string ReportAsJson(const kx_mp4::RepairReport& report, const kx_mp4::RepairOptions& options);

#endif  // KX_MP4_KXREPAIR_REPAIRREPORTTEXT_H
