// The data description service's host slots. Included by binding.h; the types are in
// kelvo/datadescription.h.
#pragma once

#include <string>
#include <string_view>

namespace kelvo {
template <typename T>
class Result;
class DescribeIOInterface;
}  // namespace kelvo

#define KELVO_DESCRIPTION_SLOTS(X)                                                             \
    X(::kelvo::Result<std::string>, WriteDescription, (::kelvo::DescribeIOInterface & object)) \
    X(::kelvo::Result<void>, ReadDescription,                                                  \
      (::kelvo::DescribeIOInterface & object, std::string_view document))
