/// @file
/// The mark of what the shared libraries export; everything without it stays inside them.
#ifndef KX_MP4_EXPORT_H
#define KX_MP4_EXPORT_H

/// The entity is part of the libraries' binary interface.
#define KX_MP4_EXPORT __attribute__((visibility("default")))

#endif  // KX_MP4_EXPORT_H
