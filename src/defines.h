/// @file
/// The one exception type that carries a failure from the I/O and box code up to the public
/// operation that turns it into a status.
#ifndef KX_MP4_DEFINES_H
#define KX_MP4_DEFINES_H

#include <exception>

#include "kx_mp4/kx_mp4.h"

/// A failed system call or callback: the error number as it stood at the failure.
class kx_mp4_exception : public std::exception {
public:
    /// Keeps the error number, or 1000 for none.
    explicit kx_mp4_exception(int code) : m_code(code) {}

    /// The error number, or a pseudo-code.
    int code() const { return m_code; }
    /// The status that stands for the error number.
    mp4_status_t error() const { return convert_error(m_code); }
    /// The operating system's text for the error number.
    const char* what() const noexcept override { return error_str(m_code); }

    /// Maps an error number to a status; 1000 is success, an unlisted number
    /// #MP4_STATUS_UNEXPECTED_ERROR.
    static mp4_status_t convert_error(int code);
    /// The operating system's text for an error number.
    static const char* error_str(int code);

private:
    int m_code;
};

#endif  // KX_MP4_DEFINES_H
