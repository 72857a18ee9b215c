/// \file
/// List container.
#ifndef OQ_LIST_H
#define OQ_LIST_H

#include <stddef.h>

#include <list>
#include <memory>
#include <new>

#include "OQException.h"

/// Memory for the nodes of an OQCList: exhausted memory is OQCNoMemoryEx. Said here, where a node is allocated, so that
/// a std::bad_alloc which an element throws while it is copied into its node passes on as it is.
template <class T>
class OQCListAllocator
{
public:
    typedef T value_type;

    OQCListAllocator() {}
    template <class U>
    OQCListAllocator(const OQCListAllocator<U>&)
    {
    }

    T* allocate(size_t aCount)
    {
        try {
            return std::allocator<T>().allocate(aCount);
        } catch (const std::bad_alloc&) {
            throw OQCNoMemoryEx("Out of Memory", OQErrorCode<OQCNoMemoryEx>::value);
        }
    }
    void deallocate(T* apMemory, size_t aCount) { std::allocator<T>().deallocate(apMemory, aCount); }

    friend bool operator==(const OQCListAllocator&, const OQCListAllocator&) { return true; }
    friend bool operator!=(const OQCListAllocator&, const OQCListAllocator&) { return false; }
};

/// A list of values in the order they were appended. The caller creates, owns and destroys it; the layer only appends
/// and counts. Filled by one thread at a time.
template <class T>
class OQ_EXPORT OQCList
{
    typedef std::list<T, OQCListAllocator<T> > List;

public:
    typedef typename List::iterator iterator;
    typedef typename List::const_iterator const_iterator;

    /// Adds a copy of the element at the end. The list is unchanged when this throws.
    /// Throws: OQCNoMemoryEx 2 "Out of Memory" when there is no memory for the node; what the element's copying throws,
    /// as it is.
    void append(const T& acrElement) { mList.push_back(acrElement); }

    /// The number of elements, found by counting them.
    int size() const
    {
        int lSize = 0;
        for (const_iterator lNode = mList.begin(); lNode != mList.end(); ++lNode) {
            ++lSize;
        }
        return lSize;
    }

    iterator begin() { return mList.begin(); }
    iterator end() { return mList.end(); }
    const_iterator begin() const { return mList.begin(); }
    const_iterator end() const { return mList.end(); }

    /// Removes and destroys one element. \return the position behind it
    iterator erase(iterator aPosition) { return mList.erase(aPosition); }
    /// Removes and destroys every element.
    void clear() { mList.clear(); }

private:
    List mList;
};

#endif
