// Small vectors and colours over double, float, 16-bit and 8-bit unsigned components.
// Plain aggregates: layouts are part of the data types that travel between modules.
#pragma once

#include <cmath>
#include <cstdint>

namespace kelvo {

template <typename T>
struct Vec2T {
    T x{}, y{};
    constexpr Vec2T operator+(const Vec2T& o) const { return {T(x + o.x), T(y + o.y)}; }
    constexpr Vec2T operator-(const Vec2T& o) const { return {T(x - o.x), T(y - o.y)}; }
    constexpr Vec2T operator*(T s) const { return {T(x * s), T(y * s)}; }
    constexpr bool operator==(const Vec2T&) const = default;
};

template <typename T>
struct Vec3T {
    T x{}, y{}, z{};
    constexpr Vec3T operator+(const Vec3T& o) const { return {T(x + o.x), T(y + o.y), T(z + o.z)}; }
    constexpr Vec3T operator-(const Vec3T& o) const { return {T(x - o.x), T(y - o.y), T(z - o.z)}; }
    constexpr Vec3T operator-() const { return {T(-x), T(-y), T(-z)}; }
    constexpr Vec3T operator*(T s) const { return {T(x * s), T(y * s), T(z * s)}; }
    constexpr Vec3T operator/(T s) const { return {T(x / s), T(y / s), T(z / s)}; }
    constexpr Vec3T& operator+=(const Vec3T& o) { return *this = *this + o; }
    constexpr Vec3T& operator-=(const Vec3T& o) { return *this = *this - o; }
    constexpr Vec3T& operator*=(T s) { return *this = *this * s; }
    constexpr bool operator==(const Vec3T&) const = default;
};

template <typename T>
struct Vec4T {
    T x{}, y{}, z{}, w{};
    constexpr bool operator==(const Vec4T&) const = default;
};

template <typename T>
constexpr Vec3T<T> operator*(T s, const Vec3T<T>& v) {
    return v * s;
}
template <typename T>
constexpr T Dot(const Vec3T<T>& a, const Vec3T<T>& b) {
    return a.x * b.x + a.y * b.y + a.z * b.z;
}
template <typename T>
constexpr Vec3T<T> Cross(const Vec3T<T>& a, const Vec3T<T>& b) {
    return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}
template <typename T>
T Length(const Vec3T<T>& v) {
    return std::sqrt(Dot(v, v));
}
template <typename T>
constexpr T SquaredLength(const Vec3T<T>& v) {
    return Dot(v, v);
}
// The zero vector stays zero instead of turning into NaNs.
template <typename T>
Vec3T<T> Normalize(const Vec3T<T>& v) {
    T len = Length(v);
    return len > T(0) ? v * (T(1) / len) : Vec3T<T>{};
}

using Vec2 = Vec2T<double>;
using Vec3 = Vec3T<double>;
using Vec4 = Vec4T<double>;
using Vec2f = Vec2T<float>;
using Vec3f = Vec3T<float>;
using Vec4f = Vec4T<float>;
using Vec3u16 = Vec3T<uint16_t>;
using Vec3u8 = Vec3T<uint8_t>;

// Colours share the vector layout; r, g, b, a name the components.
template <typename T>
struct Col3T {
    T r{}, g{}, b{};
    constexpr Col3T operator+(const Col3T& o) const { return {T(r + o.r), T(g + o.g), T(b + o.b)}; }
    constexpr Col3T operator*(T s) const { return {T(r * s), T(g * s), T(b * s)}; }
    constexpr Col3T operator*(const Col3T& o) const { return {T(r * o.r), T(g * o.g), T(b * o.b)}; }
    constexpr bool operator==(const Col3T&) const = default;
};
template <typename T>
struct Col4T {
    T r{}, g{}, b{}, a{};
    constexpr bool operator==(const Col4T&) const = default;
};

using Col3 = Col3T<double>;
using Col4 = Col4T<double>;
using Col3f = Col3T<float>;
using Col4f = Col4T<float>;
using Col3u16 = Col3T<uint16_t>;
using Col4u16 = Col4T<uint16_t>;
using Col3u8 = Col3T<uint8_t>;
using Col4u8 = Col4T<uint8_t>;

}  // namespace kelvo
