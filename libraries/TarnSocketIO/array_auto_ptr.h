#pragma once

namespace TarnSocketIO {

/// The owner of one block made with `new[]`, for a scope.
///
///     const array_auto_ptr<char> buffer(new char[size]);
///
/// Threads: a plain value.
template <class T>
class array_auto_ptr {
public:
    /// Owns `block` from now on, which may be null.
    explicit array_auto_ptr(T* block) : m_block(block) {}
    ~array_auto_ptr() { delete[] m_block; }
    array_auto_ptr(const array_auto_ptr&) = delete;
    array_auto_ptr& operator=(const array_auto_ptr&) = delete;

    /// @return the block, which stays owned.
    T* get() const { return m_block; }

private:
    T* const m_block;
};

}  // namespace TarnSocketIO
