#include "lab/fuzz/Workers.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <exception>
#include <memory>
#include <random>
#include <system_error>
#include <vector>

#include <fmt/format.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#ifdef __SANITIZE_ADDRESS__
extern "C" void __sanitizer_purge_allocator();  // Not every compiler comes with its header.
#endif

namespace tessel::lab {
namespace {

constexpr int kWorkFailed = 3;

struct Worker {
  WorkResult result;
  pid_t process = 0;
  int output = -1;  ///< Reads what the worker writes.
};

void writeAll(int file, const std::string& text) {
  for (size_t done = 0; done < text.size();) {
    const ssize_t written = write(file, text.data() + done, text.size() - done);
    if (written < 0 && errno != EINTR) {
      _exit(kWorkFailed);
    }
    done += static_cast<size_t>(std::max<ssize_t>(written, 0));
  }
}

[[noreturn]] void beWorker(const std::function<std::string(uint64_t)>& work, uint64_t item,
                           int file) {
  int status = 0;
  std::string text;
  try {
    text = work(item);
  } catch (const std::exception& error) {
    status = kWorkFailed;
    text = error.what();
  }
  writeAll(file, text);
  // Not exit(): what this process inherited is for the other one to clean up.
  _exit(status);
}

Worker startWorker(const std::function<std::string(uint64_t)>& work, uint64_t item) {
  std::array<int, 2> ends{};
  if (pipe(ends.data()) != 0) {
    throw std::system_error(errno, std::generic_category(), "pipe");
  }
  const pid_t process = fork();
  if (process < 0) {
    throw std::system_error(errno, std::generic_category(), "fork");
  }
  if (process == 0) {
    close(ends[0]);
    beWorker(work, item, ends[1]);
  }
  close(ends[1]);
  return {.result = {.item = item}, .process = process, .output = ends[0]};
}

/// Takes what there is to read; false at the end.
bool readSome(Worker& worker) {
  std::array<char, 1 << 16> buffer{};
  const ssize_t count = read(worker.output, buffer.data(), buffer.size());
  if (count > 0) {
    worker.result.text.append(buffer.data(), static_cast<size_t>(count));
  }
  return count > 0 || (count < 0 && errno == EINTR);
}

void endWorker(Worker& worker) {
  close(worker.output);
  int status = 0;
  while (waitpid(worker.process, &status, 0) < 0 && errno == EINTR) {
  }
  if (WIFSIGNALED(status)) {
    worker.result.failure = "signal " + std::to_string(WTERMSIG(status));
  } else if (WEXITSTATUS(status) != 0) {
    worker.result.failure =
        fmt::format("exit status {}: {}", WEXITSTATUS(status), worker.result.text);
  }
}

}  // namespace

void forEachInWorkers(std::span<const uint64_t> items, unsigned jobs,
                      const std::function<std::string(uint64_t)>& work,
                      const std::function<void(const WorkResult&)>& done) {
  std::vector<Worker> workers;
  size_t next = 0;
  while (next < items.size() || !workers.empty()) {
    while (next < items.size() && workers.size() < std::max(jobs, 1U)) {
      workers.push_back(startWorker(work, items[next++]));
    }
    std::vector<pollfd> outputs;
    outputs.reserve(workers.size());
    for (const Worker& worker : workers) {
      outputs.push_back({.fd = worker.output, .events = POLLIN, .revents = 0});
    }
    if (poll(outputs.data(), outputs.size(), -1) < 0 && errno != EINTR) {
      throw std::system_error(errno, std::generic_category(), "poll");
    }
    for (size_t i = workers.size(); i-- > 0;) {
      if (outputs[i].revents != 0 && !readSome(workers[i])) {
        endWorker(workers[i]);
        done(workers[i].result);
        workers.erase(workers.begin() + static_cast<std::ptrdiff_t>(i));
      }
    }
  }
}

void shuffleHeap() {
  constexpr size_t kBlocks = 100'000;
  constexpr size_t kLargestBlock = 600;
  std::minstd_rand random;
  // Those that stay are never freed.
  static std::vector<std::unique_ptr<std::byte[]>> blocks;
  for (size_t i = 0; i < kBlocks; ++i) {
    blocks.push_back(std::make_unique<std::byte[]>(1 + random() % kLargestBlock));
  }
  std::shuffle(blocks.begin(), blocks.end(), random);
  blocks.resize(kBlocks / 2);
#ifdef __SANITIZE_ADDRESS__
  __sanitizer_purge_allocator();  // It would keep back what has been freed.
#endif
}

}  // namespace tessel::lab
