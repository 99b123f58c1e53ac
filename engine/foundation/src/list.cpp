// Lists of data pointers; the strings they copy live in an arena of the list.
#include <sova/blerror.h>
#include <sova/bllist.h>

#include <deque>
#include <new>

namespace {

// A type of our own keeps the deque's code internal to the library.
struct Element
{
    void* data;
};

} // namespace

struct BLLIST
{
    std::deque<Element> items;
    void (*release)(void*) = nullptr;
    BLMEM_Descr* strings = nullptr; // created at the first AppendString
};

namespace {

int32_t add(BLLIST* list, void* data, bool front)
{
    if (!list) {
        BLERROR_Set(BLERR_INVALID_ARGUMENT, "null list");
        return 0;
    }
    try {
        if (front)
            list->items.push_front({data});
        else
            list->items.push_back({data});
    } catch (const std::bad_alloc&) {
        BLERROR_Set(BLERR_NO_MEMORY, nullptr);
        return 0;
    }
    return 1;
}

} // namespace

extern "C" {

BLLIST* BLLIST_Create(void (*release)(void* data))
{
    auto* list = new (std::nothrow) BLLIST;
    if (!list) {
        BLERROR_Set(BLERR_NO_MEMORY, nullptr);
        return nullptr;
    }
    list->release = release;
    return list;
}

int32_t BLLIST_AppendData(BLLIST* list, void* data)
{
    return add(list, data, false);
}

int32_t BLLIST_PrependData(BLLIST* list, void* data)
{
    return add(list, data, true);
}

const char* BLLIST_AppendString(BLLIST* list, const char* text)
{
    if (!list || !text) {
        BLERROR_Set(BLERR_INVALID_ARGUMENT, "null list or text");
        return nullptr;
    }
    if (!list->strings) {
        list->strings = BLMEM_CreateMemDescrEx("list strings", 1024, 1);
        if (!list->strings)
            return nullptr;
    }
    char* copy = BLMEM_StrDup(list->strings, text);
    if (!copy || !add(list, copy, false))
        return nullptr;
    return copy;
}

int32_t BLLIST_NumElements(const BLLIST* list)
{
    return list ? static_cast<int32_t>(list->items.size()) : 0;
}

void* BLLIST_GetData(const BLLIST* list, int32_t index)
{
    if (!list || index < 0 || static_cast<size_t>(index) >= list->items.size())
        return nullptr;
    return list->items[static_cast<size_t>(index)].data;
}

void* BLLIST_PopFirstData(BLLIST* list)
{
    if (!list || list->items.empty())
        return nullptr;
    void* data = list->items.front().data;
    list->items.pop_front();
    return data;
}

void BLLIST_DestroyEx(BLLIST* list, int32_t releaseData)
{
    if (!list)
        return;
    if (releaseData && list->release) {
        for (const Element& element : list->items)
            list->release(element.data);
    }
    BLMEM_DisposeMemDescr(list->strings);
    delete list;
}

} // extern "C"
