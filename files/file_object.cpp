#include "files/file_object.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>

#include "files/archive_name.h"
#include "log/simple_logger.h"

namespace {

constexpr std::size_t BLOCK_SIZE = 1024;
constexpr mode_t DIRECTORY_MODE = 0744;
constexpr mode_t FILE_MODE = 0644;
constexpr uid_t OWNER_UID = 500;
constexpr gid_t OWNER_GID = 500;

constexpr const char* CLEANUP = "FileObject::fobj_cleanup: ";

std::string error_text(int err)
{
    return std::string(std::strerror(err)) + " (" + std::to_string(err) + ")";
}

}  // namespace

FileObject::FileObject(const void* header, int header_length, std::string directory,
                       std::string name, std::string extension, unsigned max_size,
                       unsigned max_archives)
    : _header(header), _header_length(header_length), _name(std::move(name)),
      _extension(std::move(extension)), _directory(std::move(directory)), _max_size(max_size),
      _max_archives(max_archives)
{
    if (!_directory.ends_with('/'))
        _directory += '/';
    _path = _directory + _name + _extension;
    fobj_create_directory();
}

FileObject::~FileObject()
{
    fobj_close();
}

void FileObject::fobj_create_directory() const
{
    if (mkdir(_directory.c_str(), DIRECTORY_MODE) == 0) {
        if (geteuid() != OWNER_UID || getegid() != OWNER_GID) {
            // Only root may give a directory away; the files work either way.
            [[maybe_unused]] const int rc = chown(_directory.c_str(), OWNER_UID, OWNER_GID);
        }
        return;
    }
    const int err = errno;
    if (err != EEXIST)
        DBG->Log(DBG_ERROR, {"Failed to create directory ", _directory, " (", std::to_string(err),
                             ": ", std::strerror(err), ")"});
}

void FileObject::fobj_open()
{
    if (_fd != -1) {
        DBG->Log(DBG_INFO, {"Ignoring file open request, file already open: ", _path});
        return;
    }
    _fd = open(_path.c_str(), O_WRONLY | O_CREAT | O_APPEND, FILE_MODE);
    if (_fd == -1)
        throw std::runtime_error("Failed to open " + _path);
    DBG->Log(DBG_INFO, {"Opened for writing ", _path});

    struct stat info {};
    if (stat(_path.c_str(), &info) == -1)
        throw std::runtime_error("Failed to retrieve file size of " + _path);
    _size = static_cast<unsigned>(info.st_size);
    if (info.st_size == 0 && _header != nullptr && _header_length > 0)
        fobj_write_header();
}

// Throws if only part of the header was written: readers would mistake it for a complete one.
void FileObject::fobj_write_header()
{
    const auto length = static_cast<unsigned>(_header_length);
    if (write(_fd, _header, length) != static_cast<ssize_t>(length))
        throw std::runtime_error("Failed to write header to the " + _path);
    _size += length;
    DBG->Log(DBG_DEBUG, {"Written file header to ", _path, "(", std::to_string(length), " bytes)"});
}

void FileObject::fobj_close()
{
    if (_fd != -1) {
        (void)fsync(_fd);  // the blocks are written; if this fails, nothing can be repaired
        (void)close(_fd);
        _fd = -1;
    }
    DBG->Log(DBG_INFO, {"Closed file: ", _path});
}

std::string FileObject::fobj_take_block(std::string& buffer, time_t last_write, time_t tail_timeout,
                                        bool everything) const
{
    std::string block;
    if (everything) {
        block.swap(buffer);  // allocates nothing, so the last block is never lost
        return block;
    }
    const std::size_t length = buffer.size();
    const std::size_t whole_blocks = length - length % BLOCK_SIZE;
    const bool take_all = length == whole_blocks ||
                          (length < BLOCK_SIZE && time(nullptr) - last_write > tail_timeout) ||
                          time_2_rotate();
    const std::size_t taken = take_all ? length : whole_blocks;
    block.assign(buffer, 0, taken);  // may throw; the buffer is then unchanged
    buffer.erase(0, taken);
    return block;
}

int FileObject::fobj_write(const std::string& block, bool sync)
{
    if (block.empty())
        return 0;
    if (_fd == -1)
        fobj_open();
    if (_fd == -1) {  // fixed, though fobj_open() throws first: alerts match this text
        DBG->Log(DBG_ERROR, {"File is not open, unable to write to ", _path});
        return 0;
    }
    const ssize_t written = write(_fd, block.data(), block.size());
    if (written < 0) {
        DBG->Log(DBG_DEBUG, {error_text(errno), " on writing to file ", _path});
        return static_cast<int>(written);
    }
    if (!fobj_rotate())  // a rotated file is closed; its successor is sized when it is opened
        _size += static_cast<unsigned>(written);
    if (sync && _fd != -1)
        (void)fsync(_fd);  // as in fobj_close
    return static_cast<int>(written);
}

bool FileObject::fobj_rotate()
{
    if (!time_2_rotate())
        return false;
    fobj_close();  // first: it may take seconds, and the archive is named after its end
    timeval now{};
    gettimeofday(&now, nullptr);
    // The number continues from the last archive of the same second, even if the cleanup has
    // removed it, so that a later archive never gets an earlier name.
    unsigned number = now.tv_sec == _last_second ? _last_number : 0;
    std::string archive;
    do  // if access() fails for another reason, so does the rename
        archive = _directory + archive_name(_name, _extension, now.tv_sec, ++number);
    while (access(archive.c_str(), F_OK) == 0);
    if (rename(_path.c_str(), archive.c_str()) == 0) {
        _last_second = now.tv_sec;
        _last_number = number;
        DBG->Log(DBG_TRACE, {_path, " rotated to ", archive});
        fobj_cleanup();
    } else {
        fobj_remove_unarchived(archive, errno);
    }
    return true;
}

// Deletes a full file that cannot be renamed, because it would grow without limit.
void FileObject::fobj_remove_unarchived(const std::string& archive, int rename_error) const
{
    std::string outcome = "; deleted file instead.";
    if (remove(_path.c_str()) != 0)
        outcome = '\n' + error_text(errno) + " on ::remove " + _path;
    DBG->Log(DBG_ERROR, {error_text(rename_error), " on rotation (::rename) of ", _path, " to ",
                         archive, outcome});
}

void FileObject::fobj_cleanup()
{
    std::multiset<F_Info, F_Sort> archives = fobj_find_archives();
    while (archives.size() > _max_archives) {
        const std::string& oldest = archives.begin()->name;
        if (remove(oldest.c_str()) == 0)
            DBG->Log(DBG_INFO, {CLEANUP, "successfully deleted ", oldest});
        else
            DBG->Log(DBG_ERROR, {CLEANUP, "failed to delete ", oldest, "; ", error_text(errno)});
        archives.erase(archives.begin());
    }
}

// Archives of the same second are in the order of their names, which contain date, time and number:
// they are inserted in this order, and equal elements keep it.
std::multiset<F_Info, F_Sort> FileObject::fobj_find_archives() const
{
    std::multiset<F_Info, F_Sort> archives;
    for (const std::string& path : fobj_list_archives()) {
        struct stat info {};
        if (stat(path.c_str(), &info) == 0)  // skips a file of unknown age
            archives.insert(F_Info(path, info.st_mtime));
    }
    return archives;
}

std::set<std::string> FileObject::fobj_list_archives() const
{
    std::set<std::string> paths;
    const std::unique_ptr<DIR, int (*)(DIR*)> listing(opendir(_directory.c_str()), closedir);
    if (listing == nullptr) {
        DBG->Log(DBG_ERROR, {CLEANUP, "failed to open ", _directory, "; ", error_text(errno)});
        return paths;
    }
    // d_type, not lstat(): on a file system that reports no types, nothing is removed. Operators
    // are told to clean up such directories themselves.
    while (const dirent* entry = readdir(listing.get()))
        if (entry->d_type == DT_REG && is_archive_name(entry->d_name, _name, _extension))
            paths.insert(_directory + entry->d_name);
    return paths;
}
