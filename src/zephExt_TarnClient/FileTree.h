#pragma once
// Copying a folder tree the way the update needs it.
#include <filesystem>
#include <system_error>

// Copies `from` to `to` as std::filesystem::copy does with the options
// recursive and overwrite_existing: a folder's entries into `to` (made, with
// any missing parents, when missing), a file onto `to` or into it when `to` is
// a folder. Stops at the first error, which `error` then holds. Files go through
// CopyFileW: the toolchain's copy_file refuses to overwrite on Windows.
void CopyTree(const std::filesystem::path& from, const std::filesystem::path& to,
              std::error_code& error) noexcept;
