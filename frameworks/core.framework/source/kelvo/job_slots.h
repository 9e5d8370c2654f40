// The job system's host slots. Included by binding.h; the types are in kelvo/jobs.h.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>

namespace kelvo {
template <typename T>
class Result;
class JobInterface;
class JobQueueInterface;
class ConditionVariableInterface;
struct ParallelForCallbacks;

// The work of a job. It gets its own job, to ask whether it was cancelled.
using JobFunction = std::function<Result<void>(JobInterface& job)>;
}  // namespace kelvo

#define KELVO_JOB_SLOTS(X)                                                          \
    X(int, HostThreadCount, ())                                                     \
    X(::kelvo::Result<std::shared_ptr<::kelvo::JobQueueInterface>>, CreateJobQueue, \
      (std::string_view name, int threads))                                         \
    X(::kelvo::Result<std::shared_ptr<::kelvo::JobInterface>>, CreateJob,           \
      (std::string_view name, ::kelvo::JobFunction work))                           \
    X(::kelvo::Result<void>, ParallelFor,                                           \
      (int64_t from, int64_t to, int64_t chunkSize, int threads,                    \
       const ::kelvo::ParallelForCallbacks& body))                                  \
    X(::kelvo::Result<std::shared_ptr<::kelvo::ConditionVariableInterface>>,        \
      CreateConditionVariable, ())
