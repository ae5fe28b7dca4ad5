// An append-only output file with an optional header and a bounded set of archives.
//
//   name.txt                      the live file, opened by the first write
//   name_2026-03-03_14-05-09.txt  an archive; files/archive_name.h has the rule
//
// Used by one thread at a time, its owner's writer. Every event is logged through DBG, so no
// operation except fobj_take_block() and time_2_rotate() may be called while the logger's mutex is
// held.
#pragma once

#include <cstdint>
#include <ctime>
#include <set>
#include <string>
#include <utility>

// One archive found by the cleanup.
struct F_Info {
    F_Info(std::string archive_path, std::int64_t modification_time)
        : name(std::move(archive_path)), time(modification_time)
    {
    }

    std::string name;   // directory and file name
    std::int64_t time;  // seconds since the epoch
};

// Oldest archive first.
struct F_Sort {
    bool operator()(const F_Info& a, const F_Info& b) const { return a.time < b.time; }
};

class FileObject {
public:
    // The header is not copied and must outlive the object; null or length 0 means none.
    // Sizes are bytes. Creates the last component of the directory when it is missing; the file
    // itself is opened by the first write.
    FileObject(const void* header, int header_length, std::string directory, std::string name,
               std::string extension, unsigned max_size, unsigned max_archives);
    ~FileObject();
    FileObject(const FileObject&) = delete;
    FileObject& operator=(const FileObject&) = delete;

    // Opens the file for appending and writes the header into an empty one.
    // Throws std::runtime_error when the file cannot be opened, sized or given its header. In the
    // last two cases it stays open, and later writes go into a file that may lack its header.
    void fobj_open();

    // Syncs and closes the file if it is open. Reports the file as closed either way.
    void fobj_close();

    // Appends the block, opening the file first if needed, then rotates when due, or syncs when
    // asked to. Returns the bytes written, 0 when there was nothing to write, or a negative
    // number when the write failed. A short count is not retried. Throws as fobj_open does, with
    // the block not written, and as fobj_rotate and fobj_cleanup do, with the block written.
    int fobj_write(const std::string& block, bool sync);

    // Removes from the buffer, and returns, what to write to this file now; empty when nothing is
    // due. Whole blocks of 1024 bytes keep the writes large. The tail waits until the last write
    // (seconds since the epoch) is more than tail_timeout seconds ago, unless the file is to rotate
    // or everything is wanted, as at the stop. Logs nothing. Throws std::bad_alloc, unless
    // everything is wanted; the buffer is then unchanged.
    std::string fobj_take_block(std::string& buffer, time_t last_write, time_t tail_timeout,
                                bool everything) const;

    // True when the file has reached its maximum size: the next write is its last.
    bool time_2_rotate() const { return _size >= _max_size; }

    // Closes a full file, moves it to its archive name and removes surplus archives.
    // Returns true when the file was closed for rotation. Throws std::bad_alloc, with the file
    // closed: when it has not been moved, the next write opens it again and retries.
    bool fobj_rotate();

    // Deletes the oldest archives beyond the maximum. Throws std::bad_alloc; surplus archives may
    // remain until the next call.
    void fobj_cleanup();

private:
    void fobj_create_directory() const;
    void fobj_write_header();
    void fobj_remove_unarchived(const std::string& archive, int rename_error) const;
    std::set<std::string> fobj_list_archives() const;
    std::multiset<F_Info, F_Sort> fobj_find_archives() const;

    const void* _header;
    int _header_length;
    std::string _name, _extension, _directory, _path;
    unsigned _max_size;
    unsigned _size = 0;  // as accounted here; read from disk only at open
    unsigned _max_archives;
    int _fd = -1;               // -1 while closed
    time_t _last_second = 0;    // when the last archive was made
    unsigned _last_number = 0;  // its number among the archives of that second, from 1
};
