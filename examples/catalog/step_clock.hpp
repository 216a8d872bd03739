// Times the steps of the program and tells the user when a long one is still at work.
//
// Threading: one thread runs the steps. While a step runs, a thread of the clock's own writes to
// the progress stream and touches nothing else.
#pragma once

#include <functional>
#include <iosfwd>
#include <string>
#include <vector>

namespace catalog {

struct Step {
  std::string name;
  double milliseconds = 0;
};

class StepClock {
 public:
  // `progress` gets one line for every full second that a step takes. It must outlive the clock.
  explicit StepClock(std::ostream &progress) : progress_(progress) {}

  // Runs `work`. A step that throws is not recorded.
  void run(const std::string &name, const std::function<void()> &work);

  // The steps run so far, in order.
  const std::vector<Step> &steps() const { return steps_; }

 private:
  std::ostream &progress_;
  std::vector<Step> steps_;
};

}  // namespace catalog
