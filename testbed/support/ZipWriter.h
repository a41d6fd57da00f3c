#pragma once
// A minimal zip writer (stored entries), so each case makes the archive it needs.
#include <cstdint>
#include <string>

class ZipWriter {
  public:
    // A name ending in "/" is a folder; time and date are in DOS form (local time).
    void Add(const std::string& name, const std::string& data, uint16_t dosTime = 0x6000,
             uint16_t dosDate = 0x5A21);
    bool Save(const std::wstring& path) const;

  private:
    std::string m_body;
    std::string m_central;
    uint16_t m_count = 0;
};
