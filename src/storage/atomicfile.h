#pragma once

#include "core/expected.h"

#include <QByteArray>
#include <QString>

#include <sys/types.h>

namespace kelvane::storage {

// Replaces dir/name with a new file of exactly this content and mode: it is
// written beside under a fresh name and renamed over the old one, so a reader
// sees the old or the new content whole, never a torn one. Whatever was at
// the name (a link, a pipe, another user's file) is replaced, never opened.
// dir must be a trusted directory (ours, or sticky like /tmp).
core::Status replaceFile(const QString &dir, const QString &name, const QByteArray &content,
                         mode_t mode);

// Removes the temporary files of replaceFile that a killed run left in dir.
void removeStaleTemporaries(const QString &dir, const QString &name);

} // namespace kelvane::storage
