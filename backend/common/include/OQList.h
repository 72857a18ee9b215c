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
    /// What a node holds.
    typedef T value_type;

    /// Has no state.
    OQCListAllocator() {}
    /// For nodes of another type: the same.
    template <class U>
    OQCListAllocator(const OQCListAllocator<U>&)
    {
    }

    /// \param[in] aCount how many nodes
    /// \return memory for them
    /// \throws OQCNoMemoryEx 2 "Out of Memory"
    T* allocate(size_t aCount)
    {
        try {
            return std::allocator<T>().allocate(aCount);
        } catch (const std::bad_alloc&) {
            throw OQCNoMemoryEx("Out of Memory", OQErrorCode<OQCNoMemoryEx>::value);
        }
    }
    /// \param[in] apMemory from allocate()
    /// \param[in] aCount   as it was asked for
    void deallocate(T* apMemory, size_t aCount) { std::allocator<T>().deallocate(apMemory, aCount); }

    /// What one allocates any other frees.
    friend bool operator==(const OQCListAllocator&, const OQCListAllocator&) { return true; }
    /// Never.
    friend bool operator!=(const OQCListAllocator&, const OQCListAllocator&) { return false; }
};

/// A list of values in the order they were appended. The caller creates, owns and destroys it; the layer only appends
/// and counts. Filled by one thread at a time.
template <class T>
class OQ_EXPORT OQCList
{
    typedef std::list<T, OQCListAllocator<T> > List;

public:
    /// A place in the list. Stays valid until its element is removed.
    typedef typename List::iterator iterator;
    /// The same, for looking only.
    typedef typename List::const_iterator const_iterator;

    /// Adds a copy of the element at the end. The list is unchanged when this throws; what the element's copying throws
    /// passes as it is.
    /// \param[in] acrElement what is copied
    /// \throws OQCNoMemoryEx 2 "Out of Memory" when there is no memory for the node
    void append(const T& acrElement) { mList.push_back(acrElement); }

    /// Counts the elements, one by one: not every std::list keeps its size.
    /// \return how many there are
    int size() const
    {
        int lSize = 0;
        for (const_iterator lNode = mList.begin(); lNode != mList.end(); ++lNode) {
            ++lSize;
        }
        return lSize;
    }

    /// \return the first element's place, or end()
    iterator begin() { return mList.begin(); }
    /// \return the place behind the last element
    iterator end() { return mList.end(); }
    /// \return the first element's place, or end()
    const_iterator begin() const { return mList.begin(); }
    /// \return the place behind the last element
    const_iterator end() const { return mList.end(); }

    /// Removes and destroys one element.
    /// \param[in] aPosition its place
    /// \return the place behind it
    iterator erase(iterator aPosition) { return mList.erase(aPosition); }
    /// Removes and destroys every element.
    void clear() { mList.clear(); }

private:
    List mList;
};

#endif
