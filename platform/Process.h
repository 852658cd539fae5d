// Facts about processes, pid files, and turning a process into a daemon. What applications call
// too, get_pid_filename and set_pid_file_version, stands in ovard_application.h.

#ifndef OVARD_PLATFORM_PROCESS_H
#define OVARD_PLATFORM_PROCESS_H

#include <sys/types.h>

#include <cstdint>

#include "platform/ovard_application.h"
#include "records/appinfo.h"

/// Facts about one process.
struct statstruct_proc {
    std::int32_t pid;
    char exeName[16];        ///< executable name (comm), at most 15 characters and a NUL
    std::uint64_t starttime; ///< clock ticks since boot (field 22 of /proc/PID/stat)
};

/// Fills `info` from /proc/PID/stat, whose name field may hold blanks and parentheses. Zombies
/// count as processes. Returns 0; -1 when there is no such process or its facts cannot be read.
int get_proc_info_by_pid(pid_t pid, statstruct_proc* info);

/// Command line of a process as one text, arguments joined by one blank, cut to `*length` - 1
/// characters and NUL-terminated; `*length` becomes the length of the text. A process without
/// arguments (kernel thread, zombie) has an empty text. Returns 0; -1 when it cannot be read, when
/// the buffer holds an empty text.
int get_proc_cmdline(pid_t pid, char* buffer, int* length);

/// 0 when the first line of the file `path` is `record.pid` and its second line equals `version`
/// (an empty `version` accepts any). Negative otherwise. Changes nothing.
int read_pid_file_version(const appinfo& record, const char* path, const char* version);

/// Pid of another live process (not a zombie) with the executable name of this one, else 0.
/// `reserved` is 0.
int process_comm_pid(int reserved);

/// Lowers or raises this process's out-of-memory score; `adjustment` is on the scale -17 to 15.
/// Returns 0 or -1.
int OOM_Killer_set_oom_adj(int adjustment);

/// Something that another process holds and will release.
class InterprocessWaitable {
public:
    /// 1 when it was free and is now taken, 0 when it is held, -1 when it can never be had.
    virtual int tryAcquire() = 0;

protected:
    ~InterprocessWaitable() = default;
};

/// Puts the process into the background: it goes on in a child that leads a session of its own,
/// has its standard files on /dev/null and "/" as its working directory. The launching process
/// stays until `mutex` is released, then ends with status 0; should the daemon end before that or
/// within the next 100 ms, with the daemon's exit status (128 + signal for a signal). When the fork
/// fails the call returns and the process stays as it is.
void daemonize_withSTDFILE_waitforInterprocessNamedMutex(InterprocessWaitable* mutex);

namespace platform {

/// Walks the entries of /proc, in the order in which the directory yields them.
class ProcDirectory {
public:
    struct Entry {
        unsigned char type; ///< d_type: DT_DIR for a directory
        const char* name;   ///< valid until the next call of next()
    };

    ProcDirectory();
    ~ProcDirectory();
    ProcDirectory(const ProcDirectory&) = delete;
    ProcDirectory& operator=(const ProcDirectory&) = delete;

    /// False when /proc could not be opened.
    bool isOpen() const { return handle_ != nullptr; }

    /// The next entry; false at the end.
    bool next(Entry& entry);

private:
    void* handle_;
};

/// Converts an all-digits directory name to a pid; 0 for an empty name or one beyond the range.
pid_t pidFromName(const char* name);

} // namespace platform

#endif // OVARD_PLATFORM_PROCESS_H
