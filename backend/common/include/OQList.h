/// \file
/// List container.
#ifndef OQ_LIST_H
#define OQ_LIST_H

#include <stddef.h>

#include <list>
#include <memory>
#include <new>

#include "OQException.h"

/// Allocates the nodes of an OQCList and throws OQCNoMemoryEx when memory is exhausted. The translation is in the
/// allocator, so that a std::bad_alloc from copying an element passes through unchanged.
template <class T>
class OQCListAllocator
{
public:
    /// The type of a node.
    typedef T value_type;

    /// The allocator has no state.
    OQCListAllocator() {}
    /// Converts from the allocator of another type.
    template <class U>
    // cppcheck-suppress noExplicitConstructor ; an allocator must convert
    OQCListAllocator(const OQCListAllocator<U>&)
    {
    }

    /// Allocates nodes.
    /// \param[in] aCount number of nodes
    /// \return memory for the nodes
    /// \throws OQCNoMemoryEx 2 "Out of Memory"
    T* allocate(size_t aCount)
    {
        try {
            return std::allocator<T>().allocate(aCount);
        } catch (const std::bad_alloc&) {
            throw OQCNoMemoryEx("Out of Memory", OQErrorCode<OQCNoMemoryEx>::value);
        }
    }
    /// Frees nodes.
    /// \param[in] apMemory from allocate()
    /// \param[in] aCount   the count passed to allocate()
    void deallocate(T* apMemory, size_t aCount) { std::allocator<T>().deallocate(apMemory, aCount); }

    /// Always true: each allocator can free the memory of every other.
    friend bool operator==(const OQCListAllocator&, const OQCListAllocator&) { return true; }
    /// Always false.
    friend bool operator!=(const OQCListAllocator&, const OQCListAllocator&) { return false; }
};

/// A list of values in the order they were appended. The caller creates, owns and destroys it; the layer only appends
/// and counts. Only one thread at a time may append.
template <class T>
class OQ_EXPORT OQCList
{
    typedef std::list<T, OQCListAllocator<T> > List;

public:
    /// A position in the list. Stays valid until its element is removed.
    typedef typename List::iterator iterator;
    /// The same for read-only access.
    typedef typename List::const_iterator const_iterator;

    /// Adds a copy of the element at the end. If this function throws, the list is unchanged. An exception from copying
    /// the element passes through unchanged.
    /// \param[in] acrElement the element
    /// \throws OQCNoMemoryEx 2 "Out of Memory" when the node cannot be allocated
    void append(const T& acrElement) { mList.push_back(acrElement); }

    /// Counts the elements one by one, because not every std::list stores its size.
    /// \return the number of elements
    int size() const
    {
        int lSize = 0;
        for (const_iterator lNode = mList.begin(); lNode != mList.end(); ++lNode) {
            ++lSize;
        }
        return lSize;
    }

    /// \return the position of the first element, or end()
    iterator begin() { return mList.begin(); }
    /// \return the position after the last element
    iterator end() { return mList.end(); }
    /// \return the position of the first element, or end()
    const_iterator begin() const { return mList.begin(); }
    /// \return the position after the last element
    const_iterator end() const { return mList.end(); }

    /// Removes and destroys one element.
    /// \param[in] aPosition position of the element
    /// \return the position after the element
    iterator erase(iterator aPosition) { return mList.erase(aPosition); }
    /// Removes and destroys every element.
    void clear() { mList.clear(); }

private:
    List mList;
};

#endif
