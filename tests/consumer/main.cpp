#include <tavrincommon/tavrincommon.h>

#include <cstdio>

int main() {
  tavrinScheduler::Scheduler scheduler(nullptr);
  tavrinScheduler::SimpleWorker worker(&scheduler, tavrinCommon::DefaultOrigins::Firmware);
  bool ran = false;
  worker.setFunction([&ran] {
    ran = true;
    return tavrinScheduler::Worker::Finished;
  });
  scheduler.addWorker(&worker);
  scheduler.run(0);
  std::printf("consumer: worker %s\n", ran ? "ran" : "did not run");
  return ran ? 0 : 1;
}
