#include <KTBase/KTAsync.h>
#include <KTBase/KTLock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <thread>
#include <vector>

#include "KTTestLoad.h"

namespace {

constexpr unsigned int kLongMs = 20000;

struct Job {
    std::atomic<int> runs{0}, finished{0};
    CKTEvent started{true}, go, done{true};
    bool hold = false;
    void* task = nullptr;
    int (*inside)(Job&) = nullptr;
    int result = 12345;

    static int Run(void* context, CKTObject* sender, unsigned int cmd, void* task, void* again) {
        Job& job = *static_cast<Job*>(context);
        EXPECT_EQ(cmd, 201u);
        EXPECT_EQ(again, context);
        EXPECT_EQ(static_cast<void*>(sender), task);
        ++job.runs;
        job.started.Set();
        if (job.hold)
            job.go.Wait(kLongMs);
        if (job.inside != nullptr)
            job.result = job.inside(job);
        ++job.finished;
        job.done.Set();
        return 0;
    }
};

class Async : public testing::Test {
protected:
    Async() { EXPECT_EQ(KTASYNCExecInitialize(), 1); }
    ~Async() override { EXPECT_EQ(KTASYNCExecInvalidate(), 0); }
    void* Task() {
        void* task = nullptr;
        EXPECT_EQ(KTASYNCExecCreate(&task, 30), 0);
        return task;
    }
};

}  // namespace

TEST(AsyncWithoutManager, RefusesAndCountsItsUsers) {
    Job job;
    void* task = &job;
    EXPECT_EQ(KTASYNCExecCreate(&task, 30), -7);
    EXPECT_EQ(task, nullptr);
    EXPECT_EQ(KTASYNCExecCommit(&job, &job, Job::Run), -7);
    EXPECT_EQ(KTASYNCExecDelete(&job, true), -7);
    EXPECT_EQ(KTASYNCExecInvalidate(), 0);
    EXPECT_EQ(KTASYNCExecInitialize(), 1);
    EXPECT_EQ(KTASYNCExecInitialize(), 2);
    EXPECT_EQ(KTASYNCExecInvalidate(), 1);
    EXPECT_EQ(KTASYNCExecCreate(&task, 30), 0);
    EXPECT_EQ(KTASYNCExecInvalidate(), 0);  // deletes the task too
}

TEST_F(Async, RunsOneJobAndKeepsASlotForTheNext) {
    Job first, second;
    first.hold = true;
    void* task = Task();
    EXPECT_EQ(KTASYNCExecCommit(task, nullptr, Job::Run), -4);
    EXPECT_EQ(KTASYNCExecCommit(task, &first, nullptr), -4);
    EXPECT_EQ(KTASYNCExecCommit(nullptr, &first, Job::Run), -5);
    EXPECT_EQ(KTASYNCExecCommit(&first, &first, Job::Run), -5);
    EXPECT_EQ(KTASYNCExecCommit(task, &first, Job::Run), 0);
    EXPECT_EQ(first.started.Wait(kLongMs), 0);
    EXPECT_EQ(KTASYNCExecCommit(task, &second, Job::Run), 0);
    EXPECT_EQ(KTASYNCExecCommit(task, &second, Job::Run), -7);
    EXPECT_EQ(second.runs, 0);
    first.go.Set();
    EXPECT_EQ(second.done.Wait(kLongMs), 0);
    EXPECT_EQ(KTASYNCExecDelete(task, true), 0);
    EXPECT_EQ(KTASYNCExecDelete(task, true), 0);
    EXPECT_EQ(KTASYNCExecDelete(nullptr, true), -5);
    EXPECT_EQ(KTASYNCExecCommit(task, &first, Job::Run), -5);
    EXPECT_EQ(first.runs + second.runs, 2);
}

TEST_F(Async, DeletingWaitsForTheJobsHereOrOnTheManagersThread) {
    Job job, next;
    job.hold = true;
    void* task = Task();
    KTASYNCExecCommit(task, &job, Job::Run);
    EXPECT_EQ(job.started.Wait(kLongMs), 0);
    KTASYNCExecCommit(task, &next, Job::Run);
    EXPECT_EQ(KTASYNCExecDelete(task, false), 0);  // at once
    EXPECT_EQ(job.done.Check(), 0);
    job.go.Set();
    EXPECT_EQ(next.done.Wait(kLongMs), 0);

    Job other;
    other.hold = true;
    task = Task();
    KTASYNCExecCommit(task, &other, Job::Run);
    EXPECT_EQ(other.started.Wait(kLongMs), 0);
    std::thread deleter([&] {
        EXPECT_EQ(KTASYNCExecDelete(task, true), 0);
        EXPECT_EQ(other.done.Check(), 1);
    });
    other.go.Set();
    deleter.join();
}

TEST_F(Async, AJobMayCommitTheNextAndDeleteItsTask) {
    Job again;
    again.task = Task();
    again.inside = [](Job& self) {
        return self.runs < 3 ? KTASYNCExecCommit(self.task, &self, Job::Run)
                             : KTASYNCExecDelete(self.task, true);
    };
    KTASYNCExecCommit(again.task, &again, Job::Run);
    while (again.finished < 3)
        ASSERT_EQ(again.done.Wait(kLongMs), 0);
    EXPECT_EQ(KTASYNCExecInvalidate(), 0);  // the last job has left its task
    EXPECT_EQ(again.result, 0);
    EXPECT_EQ(KTASYNCExecInitialize(), 1);
}

TEST_F(Async, SurvivesCommitsAndDeletionsAtRandom) {
    const unsigned int rounds = KTTestLoad(1000);
    std::vector<std::thread> threads;
    for (unsigned int t = 0; t < 3; ++t) {
        threads.emplace_back([&, t] {
            std::mt19937 random(t);
            for (unsigned int i = 0; i < rounds; ++i) {
                Job job;
                void* task = Task();
                EXPECT_EQ(KTASYNCExecCommit(task, &job, Job::Run), 0);
                if (random() % 2 == 0) {
                    EXPECT_EQ(KTASYNCExecDelete(task, true), 0);
                    EXPECT_EQ(job.runs, 1);
                } else {
                    EXPECT_EQ(KTASYNCExecDelete(task, false), 0);
                    EXPECT_EQ(job.done.Wait(kLongMs), 0);
                }
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
}
