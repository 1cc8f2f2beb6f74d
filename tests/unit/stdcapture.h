#pragma once

#include <QByteArray>
#include <QTemporaryFile>

#include <cstdio>
#include <unistd.h>

// Runs `fn` with the file descriptor behind `stream` redirected into a
// temporary file and returns everything written to it.
template <typename Fn> QByteArray captureStream(FILE *stream, Fn fn) {
    QTemporaryFile file;
    if (!file.open())
        return "<capture failed>";
    std::fflush(stream);
    const int fd = fileno(stream);
    const int saved = dup(fd);
    dup2(file.handle(), fd);
    fn();
    std::fflush(stream);
    dup2(saved, fd);
    close(saved);
    file.seek(0);
    return file.readAll();
}
