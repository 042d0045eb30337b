// Lines of text from a descriptor: a pipe, a terminal or a file.
#pragma once

#include <functional>
#include <string>

#include <kest/utils/iobuffer.h>
#include <kest/utils/scheduler.h>

class LineInput {
  public:
    using OnLine = std::function<void(const std::string& line)>;

    // `fd` stays the caller's.
    LineInput(kest::utils::Scheduler& scheduler, int fd, OnLine onLine);
    ~LineInput();
    LineInput(const LineInput&) = delete;
    LineInput& operator=(const LineInput&) = delete;

    bool start();

  private:
    void readSome();
    void takeLines(bool atEnd);
    void stop();

    kest::utils::Scheduler& scheduler_;
    const int fd_;
    const OnLine onLine_;
    kest::utils::IOBuffer buffer_{"standard input"};
    unsigned long long ioTask_ = 0;
    unsigned long long timer_ = 0;
};
