#ifndef STATUSCTL_TEXT_OUTPUTFILE_H
#define STATUSCTL_TEXT_OUTPUTFILE_H

#include <string>

namespace OutputFile
{

/// Replaces the content of a file as a whole: a reader sees the old or the new text, never a part. Owner and
/// mode end up as after a shell redirection: unchanged, or as the umask says for a new file. A symbolic link
/// stays a symbolic link. A name that is not a file is written to; so is a link of /proc, such as
/// /dev/stdout, even if it leads to a file.
/// @throws Failure if that fails; the file is then unchanged, and nothing is left beside it
void replace(const std::string& name, const std::string& text);

} // namespace OutputFile

#endif
