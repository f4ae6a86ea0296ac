#pragma once

#include <QString>

namespace fixtures {

// Says when a file is used, through inotify: a test waits on it for a
// worker child to reach its input rather than guess a delay.
class FileWatch {
public:
    enum class Use {
        Open,  // the file is opened
        Read,  // it is read: a reader already under way goes on reading
    };
    FileWatch(const QString &path, Use use);
    ~FileWatch();
    bool valid() const { return m_watch >= 0; }
    // True once the file has been used since the watch began (or since the
    // last wait that said so), within msecs.
    bool wait(int msecs = 60000);

    FileWatch(const FileWatch &) = delete;
    FileWatch &operator=(const FileWatch &) = delete;

private:
    int m_fd = -1;
    int m_watch = -1;
};

} // namespace fixtures
