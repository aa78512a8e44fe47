#pragma once
#include <QString>
#include <QTemporaryFile>

// A file being published below the served tree. Its content goes to a hidden temporary file in
// the final directory, readable by everyone whatever the umask (the web server usually runs as
// another user), and takes its final name with one write-through rename, so that a client
// never downloads a half-written file. Directories it creates are readable and searchable by
// everyone too. Each failing step sets *error to one line naming the file.
class PublishedFile {
public:
    explicit PublishedFile(const QString& finalPath);

    bool open(QString* error);
    bool write(const char* data, qint64 length, QString* error);
    // Flushes and closes the temporary file; the final name is not touched yet.
    bool finishWriting(QString* error);
    // The temporary file that holds the content until moveIntoPlace.
    QString writtenPath() const { return temp.fileName(); }
    // Replaces the final name by the written content, data and directory synced to disk.
    bool moveIntoPlace(QString* error);

private:
    bool fail(const QString& what, QString* error);

    QString finalPath;
    QTemporaryFile temp;  // removed again unless it was moved into place
};
