#ifndef STATUSCTL_TEXT_OUTPUTFILE_H
#define STATUSCTL_TEXT_OUTPUTFILE_H

#include <string>

namespace OutputFile
{

/// Puts a whole file in the place of the one of this name, so a reader sees the old text or the new one, and
/// never a part. Owner and mode are as after a redirection of the shell: as before, or as the umask says for
/// a new file. A symbolic link stays one. A name that is no file, such as /dev/stdout, is written to.
/// @throws Failure if that fails; then the file is as before, and there is nothing else
void replace(const std::string& name, const std::string& text);

} // namespace OutputFile

#endif
