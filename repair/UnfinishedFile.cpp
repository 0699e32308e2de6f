#include "UnfinishedFile.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "RepairRefused.h"
#include "defines.h"

namespace kx_mp4 {

UnfinishedFile::~UnfinishedFile() {
    if (!m_complete) std::remove(m_path.c_str());
}

void UnfinishedFile::BecomeComplete(bool overwrite) {
    // A name that has come meanwhile makes link fail, which rename would replace. File systems
    // without links leave a moment for that.
    const bool linked = !overwrite && link(m_path.c_str(), m_target.c_str()) == 0;
    if (!linked && !overwrite && access(m_target.c_str(), F_OK) == 0)
        throw RepairRefused("the output '" + m_target + "' has come into being meanwhile");
    if (!linked && std::rename(m_path.c_str(), m_target.c_str()) != 0)
        throw kx_mp4_exception(errno);
    if (linked) std::remove(m_path.c_str());
    m_complete = true;
    m_folder.Sync();
}

void RefuseOutput(const std::string& path, std::initializer_list<const PosixFile*> inputs,
                  bool overwrite) {
    for (const PosixFile* const input : inputs) {
        if (input->IsNamed(path))
            throw RepairRefused("the output '" + path + "' is an input of the repair");
    }
    struct stat status = {};
    if (lstat(path.c_str(), &status) != 0) return;
    if (!S_ISREG(status.st_mode))
        throw RepairRefused("the output '" + path + "' is there and is not a regular file");
    if (!overwrite) throw RepairRefused("the output '" + path + "' is there already");
}

}  // namespace kx_mp4
