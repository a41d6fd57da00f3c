#pragma once
// RapidJSON with an allocator that throws when memory runs out. RapidJSON's
// own C run-time allocator answers null then, and RapidJSON writes through
// it; a throw unwinds to the export, which answers its failure code.
#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <cstdlib>
#include <new>

class JsonHeap {
  public:
    static const bool kNeedFree = true;
    void* Malloc(size_t size) { return size ? Checked(std::malloc(size)) : nullptr; }
    void* Realloc(void* block, size_t /*oldSize*/, size_t newSize) {
        if (newSize == 0) {
            std::free(block);
            return nullptr;
        }
        return Checked(std::realloc(block, newSize)); // the old block stays its owner's
    }
    static void Free(void* block) { std::free(block); }

  private:
    static void* Checked(void* block) {
        if (!block)
            throw std::bad_alloc();
        return block;
    }
};

using JsonPool = rapidjson::MemoryPoolAllocator<JsonHeap>;
using JsonDocument = rapidjson::GenericDocument<rapidjson::UTF8<>, JsonPool, JsonHeap>;
using JsonValue = rapidjson::GenericValue<rapidjson::UTF8<>, JsonPool>;
using JsonBuffer = rapidjson::GenericStringBuffer<rapidjson::UTF8<>, JsonHeap>;
using JsonWriter = rapidjson::Writer<JsonBuffer, rapidjson::UTF8<>, rapidjson::UTF8<>, JsonHeap>;
