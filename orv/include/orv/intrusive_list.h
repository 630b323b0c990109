// A doubly linked list threaded through its elements.
//
// A std::list of pointers costs a node allocation per element and a pointer
// chase from the node to the element. Here each element carries its own two
// links, so filing an element allocates nothing, and an element unlinks
// itself in constant time without a search. The list owns nothing: whoever
// owns the elements unlinks them before they go.
#pragma once

#include <cstddef>

template <typename T>
struct orv_list_links_t {
    T* prev = nullptr;
    T* next = nullptr;
};

template <typename T, orv_list_links_t<T> T::*Links>
class orv_intrusive_list_t {
  public:
    orv_intrusive_list_t() = default;
    orv_intrusive_list_t(const orv_intrusive_list_t&) = delete;
    orv_intrusive_list_t& operator=(const orv_intrusive_list_t&) = delete;

    T* front() const { return first_; }
    T* back() const { return last_; }
    static T* next(const T& element) { return (element.*Links).next; }
    static T* prev(const T& element) { return (element.*Links).prev; }
    std::size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }

    void pushBack(T& element) {
        auto& links = element.*Links;
        links.prev = last_;
        links.next = nullptr;
        if (last_ != nullptr) {
            (last_->*Links).next = &element;
        } else {
            first_ = &element;
        }
        last_ = &element;
        ++size_;
    }

    // The element must be in this list.
    void erase(T& element) {
        auto& links = element.*Links;
        if (links.prev != nullptr) {
            (links.prev->*Links).next = links.next;
        } else {
            first_ = links.next;
        }
        if (links.next != nullptr) {
            (links.next->*Links).prev = links.prev;
        } else {
            last_ = links.prev;
        }
        links = {};
        --size_;
    }

  private:
    T* first_ = nullptr;
    T* last_ = nullptr;
    std::size_t size_ = 0;
};
