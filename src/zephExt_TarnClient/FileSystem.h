#pragma once
// The file operations of the update, the uninstall and the detection log, over
// Win32, with the semantics of the standard C++ library that ships with the
// Windows compilers, so that a build by any compiler behaves alike: a copy
// makes its target folder but never a missing parent, removals delete
// read-only files and folders too, a name's extension runs from its last dot
// for any name but "." and "..", and a line is read as a narrow text stream
// reads it. Errors are Win32 codes in Win32Category(); the forms without an
// error_code throw std::system_error.
#include <cstdint>
#include <string>
#include <system_error>
#include <vector>

namespace FileSystem {

// Win32 error codes with the system's own message texts.
const std::error_category& Win32Category() noexcept;

// False, and no error, for a path that is not there.
bool Exists(const std::wstring& path, std::error_code& error) noexcept;
bool Exists(const std::wstring& path);

// Copies a file or a folder tree onto `to`, overwriting files that exist: a
// folder's entries go into `to`, which is made when missing (its parent must
// exist); a file goes onto `to`, or into it when `to` is a folder.
void Copy(const std::wstring& from, const std::wstring& to, std::error_code& error) noexcept;
void Copy(const std::wstring& from, const std::wstring& to);

// Removes a file or an empty folder; false when there was nothing to remove.
bool Remove(const std::wstring& path);
// Removes a file or a folder with all it holds and counts what it removed:
// 0 when nothing was there, the all-ones value with `error` set on failure.
std::uintmax_t RemoveAll(const std::wstring& path, std::error_code& error) noexcept;
std::uintmax_t RemoveAll(const std::wstring& path);

// The paths of the entries directly inside `folder`.
std::vector<std::wstring> List(const std::wstring& folder);

enum class LineRead { Read, Empty, NotOpened, Failed };
// The file's first line as a narrow text stream's getline gives it: the bytes
// up to the first line feed, without a carriage return right before it, the
// file ending at its first Ctrl-Z. Empty when the file ends before its first
// byte; Failed when a read fails.
LineRead ReadFirstLine(const std::wstring& path, std::string& line);

// `folder` and `name` with one separator between them.
std::wstring Join(const std::wstring& folder, const std::wstring& name);
// The part of the path's file name from its last dot; empty for "." and "..".
std::wstring Extension(const std::wstring& path);

} // namespace FileSystem
