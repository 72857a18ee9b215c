// Tests the job server of the examples in real processes. System failures are injected into children of the test, which
// run the same source.

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include "Command.h"

#define main jobserverMain
#include "jobserver.cpp"
#undef main

namespace
{

bool isMailbox(pid_t aClient) { return 0 <= shmget(cFirstKey + aClient, 0, 0); }

bool isRunning(pid_t aPid) { return 0 == kill(aPid, 0); }

class JobserverTest : public RecordedTest
{
protected:
    void SetUp() override
    {
        RecordedTest::SetUp();
        keepNoEvents();
        mFolder = path("");
        mFolder.pop_back();
    }
    void TearDown() override
    {
        EXPECT_NE(0, access((mFolder + "/fifo").c_str(), F_OK)) << "the FIFO was left";
        unlink((mFolder + "/lock").c_str());
        for (const std::string& lrProgram : mPrograms) {
            unlink(lrProgram.c_str());
        }
        RecordedTest::TearDown();
    }

    std::unique_ptr<Command> started()
    {
        std::unique_ptr<Command> lServer(new Command({JOBSERVER, mFolder}));
        EXPECT_TRUE(lServer->readUntil([&] { return contains(lServer->error(), "ready"); })) << lServer->error();
        return lServer;
    }
    static void end(Command& arServer, int aSignal = SIGTERM)
    {
        arServer.kill(aSignal);
        EXPECT_EQ(0, arServer.finish().mStatus) << arServer.error();
    }
    static void killed(Command& arServer)
    {
        arServer.kill(SIGKILL);
        EXPECT_EQ(-SIGKILL, arServer.finish().mStatus);
    }

    std::unique_ptr<Command> client(const std::string& acrCommand)
    {
        return std::unique_ptr<Command>(new Command({JOBSERVER, mFolder, acrCommand}));
    }
    /// Expects an answer, and that the client's mailbox is gone.
    static void expectAnswer(const std::string& acrAnswer, Command& arClient)
    {
        const pid_t lPid = arClient.pid();
        const Result lResult = arClient.finish();
        EXPECT_EQ(acrAnswer + "\n", lResult.mOut) << lResult.mError;
        EXPECT_EQ("exit status 0" == acrAnswer ? 0 : 1, lResult.mStatus);
        EXPECT_FALSE(isMailbox(lPid));
    }
    void expectAnswer(const std::string& acrAnswer, const std::string& acrCommand)
    {
        expectAnswer(acrAnswer, *client(acrCommand));
    }
    /// Expects that the client reports this failure, and that its mailbox is gone.
    static void expectFailure(const std::string& acrText, Command& arClient)
    {
        const pid_t lPid = arClient.pid();
        const Result lResult = arClient.finish();
        EXPECT_EQ("", lResult.mOut);
        EXPECT_TRUE(contains(lResult.mError, "jobserver: " + acrText)) << lResult.mError;
        EXPECT_EQ(1, lResult.mStatus);
        EXPECT_FALSE(isMailbox(lPid));
    }

    std::string program(const std::string& acrName, const std::string& acrLines)
    {
        mPrograms.push_back(path(acrName));
        writeProgram(mPrograms.back(), "#!/bin/sh\n" + acrLines);
        return mPrograms.back();
    }
    /// Returns a job that writes its process id into a file and then runs until a signal ends it.
    std::string endlessJob() { return program("endless", "echo $$ >" + pidFile() + "\nexec sleep 1000\n"); }
    std::string pidFile()
    {
        mPrograms.push_back(path("pid"));
        return mPrograms.back();
    }
    pid_t endlessPid()
    {
        EXPECT_TRUE(eventually([&] { return contains(contentOf(path("pid")), "\n"); }));
        return atoi(contentOf(path("pid")).c_str());
    }

    void send(const std::string& acrBytes)
    {
        OQCPipe lPipe((mFolder + "/fifo").c_str(), OQFM_Mode1, OQPS_Blocking);
        EXPECT_EQ(acrBytes.size(), lPipe.write(acrBytes.data(), static_cast<unsigned int>(acrBytes.size())));
    }

    /// Runs the server in a child of the test after a preparation.
    Result resultInChild(const std::function<void()>& acrPrepare)
    {
        return resultOf({}, [&] {
            acrPrepare();
            std::string lName = "jobserver";
            char* lWords[] = {&lName[0], &mFolder[0], nullptr};
            _exit(jobserverMain(2, lWords));
        });
    }

    std::string mFolder;
    Strings mPrograms;
};

TEST_F(JobserverTest, RunsProgramsAndReportsHowTheyEnd)
{
    const auto lServer = started();
    expectAnswer("exit status 0", "/bin/echo two  words");
    EXPECT_TRUE(lServer->readUntil([&] { return "two words\n" == lServer->out(); }));
    expectAnswer("exit status 7", program("seven", "exit 7\n"));
    expectAnswer("ended by signal 15", program("ended", "kill -15 $$\n"));
    end(*lServer);
}

TEST_F(JobserverTest, ReportsAProgramThatCannotBeRunWithTheTextOfTheSystem)
{
    const auto lServer = started();
    expectAnswer("cannot run /nonexistent/program: No such file or directory", "/nonexistent/program");
    expectAnswer("cannot run /tmp: Permission denied", "/tmp");
    expectAnswer("exit status 0", "/bin/true");
    end(*lServer);
}

TEST_F(JobserverTest, AnswersManyClientsEachWithItsOwnAnswer)
{
    const auto lServer = started();
    const std::string lProgram = program("status", "exit $1\n");
    std::vector<std::unique_ptr<Command>> lClients;
    for (int lStatus = 0; lStatus < 20; ++lStatus) {
        lClients.push_back(client(lProgram + " " + std::to_string(lStatus)));
    }
    for (int lStatus = 0; lStatus < 20; ++lStatus) {
        expectAnswer("exit status " + std::to_string(lStatus), *lClients[static_cast<size_t>(lStatus)]);
    }
    end(*lServer, SIGINT);
}

TEST_F(JobserverTest, RefusesASecondServer)
{
    const auto lServer = started();
    const Result lSecond = resultOf({JOBSERVER, mFolder});
    EXPECT_EQ(1, lSecond.mStatus);
    EXPECT_TRUE(contains(lSecond.mError, "jobserver: another server is running\n")) << lSecond.mError;
    expectAnswer("exit status 0", "/bin/true");
    end(*lServer);
}

TEST_F(JobserverTest, ASignalEndsTheServerAndItsJobs)
{
    for (const int lSignal : {SIGTERM, SIGINT}) {
        const auto lServer = started();
        const auto lClient = client(endlessJob());
        const pid_t lJob = endlessPid();
        EXPECT_TRUE(isRunning(lJob));
        end(*lServer, lSignal);
        EXPECT_FALSE(isRunning(lJob));
        expectAnswer("ended by signal 9", *lClient);
        EXPECT_NE(0, access((mFolder + "/fifo").c_str(), F_OK));
        unlink(path("pid").c_str());
    }
}

TEST_F(JobserverTest, AServerStartsAfterAKilledServerWhoseClientsGetNoAnswer)
{
    prctl(PR_SET_CHILD_SUBREAPER, 1);  // this process inherits the job of the killed server
    auto lServer = started();
    const auto lClient = client(endlessJob());
    const pid_t lJob = endlessPid();
    lServer->kill(SIGKILL);
    expectFailure("no answer: the server or this client ends\n", *lClient);
    EXPECT_EQ(0, access((mFolder + "/fifo").c_str(), F_OK));
    kill(lJob, SIGKILL);  // the job has the outputs of the server
    EXPECT_EQ(-SIGKILL, lServer->finish().mStatus);
    EXPECT_EQ(lJob, waitpid(lJob, nullptr, 0));
    expectFailure("no server is running\n", *client("/bin/true"));
    lServer = started();
    expectAnswer("exit status 0", "/bin/true");
    end(*lServer);
}

TEST_F(JobserverTest, AClientThatIsEndedRemovesItsMailbox)
{
    const auto lServer = started();
    const auto lClient = client(endlessJob());
    const pid_t lJob = endlessPid(), lPid = lClient->pid();
    EXPECT_TRUE(isMailbox(lPid));
    lClient->kill(SIGTERM);
    expectFailure("no answer: the server or this client ends\n", *lClient);
    kill(lJob, SIGKILL);
    EXPECT_TRUE(lServer->readUntil([&] { return contains(lServer->error(), std::to_string(lPid) + " has ended"); }));
    end(*lServer);
    EXPECT_FALSE(isMailbox(lPid));
}

TEST_F(JobserverTest, TheServerRemovesTheMailboxOfAClientThatWasKilled)
{
    const auto lServer = started();
    const auto lClient = client(endlessJob());
    const pid_t lJob = endlessPid(), lPid = lClient->pid();
    killed(*lClient);
    EXPECT_TRUE(isMailbox(lPid));
    kill(lJob, SIGKILL);
    EXPECT_TRUE(lServer->readUntil([&] { return contains(lServer->error(), std::to_string(lPid) + " has ended"); }));
    expectAnswer("exit status 0", "/bin/true");
    end(*lServer);
    EXPECT_FALSE(isMailbox(lPid));
}

TEST_F(JobserverTest, AClientThatDoesNotReadDelaysNoOtherClient)
{
    const auto lServer = started();
    const std::string lPid = std::to_string(getpid());
    OQCMailbox lMailbox(cFirstKey + getpid(), cMailboxSize, OQCM_Server);
    send(lPid + " /bin/true\n" + lPid + " /bin/false\n");
    expectAnswer("exit status 0", "/bin/true");
    EXPECT_FALSE(contains(lServer->error(), "does not read"));
    EXPECT_TRUE(lServer->readUntil(
        [&] { return contains(lServer->error(), "client " + lPid + " has ended, or does not read"); }));
    end(*lServer);
}

TEST_F(JobserverTest, ARequestMayArriveInPiecesAndAnInvalidRequestAffectsNoOther)
{
    const auto lServer = started();
    const std::string lRequest = std::to_string(getpid()) + " /bin/false\n";
    char lBytes[100];
    unsigned int lLength = 0;
    {
        OQCMailbox lMailbox(cFirstKey + getpid(), cMailboxSize, OQCM_Server);
        for (const char lByte : lRequest) {
            send(std::string(1, lByte));
        }
        EXPECT_TRUE(lMailbox.receive(lBytes, sizeof lBytes, lLength, std::chrono::minutes(1)));
        EXPECT_EQ("exit status 1", std::string(lBytes, lLength));
    }
    const std::string lPid = std::to_string(getpid());
    for (const std::string& lrBroken :
         {lPid + " /bin/tr",
          std::string("\n\n no request\n-1 /bin/true\n7\n2147483647 /bin/true\n99999999999 /bin/true\n"),
          lPid + " /bin/true " + std::string(3 * PIPE_BUF, 'x')}) {
        send(lrBroken);
        expectAnswer("exit status 0", "/bin/true");
    }
    end(*lServer);
    EXPECT_FALSE(isMailbox(getpid()));
}

TEST_F(JobserverTest, AClientReportsARequestThatCannotBeSent)
{
    const auto lServer = started();
    for (const char* acWithoutProgram : {"", "  ", "\n/bin/true"}) {
        EXPECT_EQ(2, resultOf({JOBSERVER, mFolder, acWithoutProgram}).mStatus);
    }
    expectFailure("cannot send the request: Message too long\n", *client("/bin/true " + std::string(PIPE_BUF, 'x')));
    lServer->kill(SIGSTOP);
    OQCPipe lPipe((mFolder + "/fifo").c_str(), OQFM_Mode1, OQPS_NonBlocking);
    const std::string lFiller(PIPE_BUF, '\n');
    while (lFiller.size() == lPipe.write(lFiller.data(), PIPE_BUF)) {
    }
    expectFailure("cannot send the request: Resource temporarily unavailable\n", *client("/bin/true"));
    lServer->kill(SIGCONT);
    EXPECT_TRUE(eventually([&] {
        int lWaiting = -1;
        return 0 == ioctl(lPipe.get(), FIONREAD, &lWaiting) && 0 == lWaiting;
    }));
    lPipe.close();
    expectAnswer("exit status 0", "/bin/true");
    end(*lServer);
}

TEST_F(JobserverTest, AServerWhoseThreadsCannotStartFailsAndLeavesNothing)
{
    for (unsigned int lThread = 1; lThread <= cWorkers; ++lThread) {
        const Result lResult = resultInChild([&] {
            static Recording sRecording;
            substitute::pthread_create.failOn(lThread, EAGAIN, EAGAIN);
        });
        EXPECT_EQ(1, lResult.mStatus);
        EXPECT_TRUE(contains(lResult.mError, ": Resource temporarily unavailable\n")) << lResult.mError;
        EXPECT_NE(0, access((mFolder + "/fifo").c_str(), F_OK));
    }
    const auto lServer = started();
    end(*lServer);
}

#if !OQ_SANITIZED  // a sanitizer needs a descriptor to examine an exception
TEST_F(JobserverTest, AStartWithoutDescriptorsFailsWithTheTextOfTheSystemAndTheNextStartWorks)
{
    const auto lFree = [](rlim_t aDescriptors) {
        const int lLowest = dup(0);
        close(lLowest);
        const rlimit lLimit = {static_cast<rlim_t>(lLowest) + aDescriptors,
                               static_cast<rlim_t>(lLowest) + aDescriptors};
        setrlimit(RLIMIT_NOFILE, &lLimit);
    };
    const Result lNone = resultInChild([&] { lFree(0); });
    EXPECT_EQ(1, lNone.mStatus);
    EXPECT_TRUE(contains(lNone.mError, ": cannot open the lock file: Too many open files\n")) << lNone.mError;
    const Result lOne = resultInChild([&] { lFree(1); });
    EXPECT_EQ(1, lOne.mStatus);
    EXPECT_TRUE(contains(lOne.mError, ": Too many open files\n")) << lOne.mError;
    const auto lServer = started();
    expectAnswer("exit status 0", "/bin/true");
    end(*lServer);
}
#endif

TEST_F(JobserverTest, AWholeLifeInAChildOfTheTest)
{
    std::string lName = "jobserver";
    char* lWords[] = {&lName[0], &mFolder[0], nullptr};
    Command lServer({}, [&] { _exit(jobserverMain(2, lWords)); });
    EXPECT_TRUE(lServer.readUntil([&] { return contains(lServer.error(), "ready"); }));
    expectAnswer("exit status 3", program("three", "exit 3\n"));
    end(lServer);
}

}  // namespace
