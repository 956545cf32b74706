// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include <sched.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <android-base/file.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <utils/String16.h>

#include "android/kus/ku_service.h"
#include "tests/support/fake_callback.h"
#include "tests/support/log_capture.h"
#include "tests/support/process.h"
#include "tests/support/service_fixture.h"

namespace android::kus::test {

namespace {

using binder::Status;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using ::testing::SizeIs;

using Recipient = KUsbService::CallbackDeathRecipient;

// Notes what its links are made and taken back with.
class LinkedCallback : public FakeCallback {
  public:
    struct Link {
        IBinder::DeathRecipient* recipient;
        void* cookie;
        uint32_t flags;
        bool wantsOut;

        bool operator==(const Link& other) const {
            return recipient == other.recipient && cookie == other.cookie && flags == other.flags &&
                   wantsOut == other.wantsOut;
        }
    };

    status_t linkToDeath(const sp<DeathRecipient>& recipient, void* cookie,
                         uint32_t flags) override {
        links.push_back({recipient.get(), cookie, flags, false});
        return FakeCallback::linkToDeath(recipient, cookie, flags);
    }

    status_t unlinkToDeath(const wp<DeathRecipient>& recipient, void* cookie, uint32_t flags,
                           wp<DeathRecipient>* out) override {
        unlinks.push_back({recipient.unsafe_get(), cookie, flags, out != nullptr});
        if (onUnlink) onUnlink(recipient);
        return FakeCallback::unlinkToDeath(recipient, cookie, flags, out);
    }

    std::vector<Link> links;
    std::vector<Link> unlinks;
    std::function<void(const wp<DeathRecipient>&)> onUnlink;
};

class RegistryTest : public ServiceTest {
  protected:
    // Each registration is told once of a device that goes.
    void TellClients() { EXPECT_TRUE(service->updateDeviceList(DeviceInfo(), 0).isOk()); }

    // The registrations that each client is still told through.
    std::vector<size_t> RegistrationsOf(const std::vector<sp<FakeCallback>>& clients) {
        std::vector<size_t> before(clients.size());
        std::vector<size_t> counts(clients.size());
        for (size_t i = 0; i < clients.size(); ++i) before[i] = clients[i]->Events().size();
        TellClients();
        for (size_t i = 0; i < clients.size(); ++i) {
            counts[i] = clients[i]->Events().size() - before[i];
        }
        return counts;
    }
};

// --- registerKusCallback -----------------------------------------------------------------------

using RegisterKusCallback = RegistryTest;

TEST_F(RegisterKusCallback, LogsAddressesAndTheCountAsAnError) {
    const sp<FakeCallback> client = MakeClient();
    EXPECT_TRUE(service->registerKusCallback(client).isOk());
    EXPECT_THAT(log.Take(),
                ElementsAre(Info("registerKusCallback called" + CallbackAddress(client)),
                            Info("registerKusCallback binder " + BinderAddress(client)),
                            Error("Size of callbacks at registerKusCallback 1")));
}

TEST_F(RegisterKusCallback, LinksARecipientWithoutCookieAndFlags) {
    const auto client = MakeClient<LinkedCallback>();
    service->registerKusCallback(client);
    const auto recipients = client->Recipients();
    ASSERT_THAT(recipients, SizeIs(1));
    EXPECT_THAT(client->links,
                ElementsAre(LinkedCallback::Link{recipients[0].get(), nullptr, 0, false}));
}

TEST_F(RegisterKusCallback, HoldsTheClient) {
    const auto client = MakeClient();
    const int32_t before = client->getStrongCount();
    service->registerKusCallback(client);
    EXPECT_EQ(before + 1, client->getStrongCount());
}

TEST_F(RegisterKusCallback, KeepsNothingWhenTheClientCannotBeLinked) {
    const auto client = MakeClient<LinkedCallback>();
    client->linkResult = DEAD_OBJECT;
    EXPECT_TRUE(service->registerKusCallback(client).isOk());
    EXPECT_THAT(log.Take(),
                ElementsAre(Info("registerKusCallback called" + CallbackAddress(client)),
                            Info("registerKusCallback binder " + BinderAddress(client)),
                            Error("Failed to link death recipient to binder")));
    EXPECT_THAT(RegistrationsOf({client}), ElementsAre(0));

    log.Take();
    service->unregisterKusCallback(client);
    EXPECT_EQ(1, log.CountOf(Info("Given callback not registered with this list")));
    EXPECT_THAT(client->unlinks, IsEmpty());
}

TEST_F(RegisterKusCallback, TakesTheSameClientTwice) {
    const auto client = MakeClient();
    service->registerKusCallback(client);
    log.Take();
    EXPECT_TRUE(service->registerKusCallback(client).isOk());
    EXPECT_THAT(log.Take(),
                ElementsAre(Info("registerKusCallback called" + CallbackAddress(client)),
                            Info("registerKusCallback binder " + BinderAddress(client)),
                            Error("Size of callbacks at registerKusCallback 2")));
    EXPECT_THAT(RegistrationsOf({client}), ElementsAre(2));

    const auto recipients = client->Recipients();
    ASSERT_THAT(recipients, SizeIs(2));
    EXPECT_NE(recipients[0].get(), recipients[1].get());
}

TEST_F(RegisterKusCallback, KeepsClientsInTheOrderOfTheirAddresses) {
    std::map<IBinder*, sp<FakeCallback>> byAddress;
    for (int i = 0; i < 5; ++i) {
        const sp<FakeCallback> client = MakeClient();
        byAddress.emplace(client.get(), client);
    }
    std::vector<IBinder*> expected;
    std::vector<IBinder*> told;
    for (const auto& item : byAddress) {
        IBinder* const binder = item.first;
        expected.push_back(binder);
        item.second->onEvent = [&told, binder](const FakeCallback::Event&) {
            told.push_back(binder);
        };
    }
    for (auto item = byAddress.rbegin(); item != byAddress.rend(); ++item) {
        service->registerKusCallback(item->second);
    }
    TellClients();
    EXPECT_THAT(told, ElementsAreArray(expected));
}

TEST_F(RegisterKusCallback, IsTheObjectsOwn) {
    const auto client = AddClient();
    const sp<KUsbService> other = new KUsbService();
    other->updateDeviceList(DeviceInfo(), 0);
    EXPECT_THAT(client->Events(), IsEmpty());
    TellClients();
    EXPECT_THAT(client->Events(), SizeIs(1));
}

TEST_F(RegisterKusCallback, EndsTheProcessWithoutACallback) {
    const ProcessResult child = RunInChild([&] { service->registerKusCallback(nullptr); });
    EXPECT_EQ(-1, child.status);
    EXPECT_EQ(SIGABRT, child.signal);
    EXPECT_EQ("I registerKusCallback called" + Address(nullptr) +
                      "\nI registerKusCallback binder " + Address(nullptr) +
                      "\nF Check failed: callback_.get() \n",
              child.err);
}

// --- unregisterKusCallback ---------------------------------------------------------------------

using UnregisterKusCallback = RegistryTest;

TEST_F(UnregisterKusCallback, LogsAddressesAndTheRemainingCount) {
    const auto client = AddClient();
    AddClient();
    log.Take();
    EXPECT_TRUE(service->unregisterKusCallback(client).isOk());
    EXPECT_THAT(log.Take(),
                ElementsAre(Info("unregisterKusCallback called" + CallbackAddress(client)),
                            Info("unregisterKusCallback binder" + BinderAddress(client)),
                            Info("Callback successfully removed from list"),
                            Info("Size of callbacks at unregisterKusCallback1")));
}

TEST_F(UnregisterKusCallback, UnlinksTheRecipientAsItWasLinked) {
    const auto client = MakeClient<LinkedCallback>();
    service->registerKusCallback(client);
    service->unregisterKusCallback(client);
    EXPECT_EQ(client->links, client->unlinks);
    EXPECT_THAT(client->Recipients(), IsEmpty());
}

TEST_F(UnregisterKusCallback, LeavesOtherClientsRegistered) {
    const auto first = AddClient();
    const auto second = AddClient();
    const auto third = AddClient();
    service->unregisterKusCallback(second);
    EXPECT_THAT(RegistrationsOf({first, second, third}), ElementsAre(1, 0, 1));
}

TEST_F(UnregisterKusCallback, SaysSoForAnUnknownCallback) {
    const auto known = AddClient();
    const auto unknown = MakeClient<LinkedCallback>();
    log.Take();
    EXPECT_TRUE(service->unregisterKusCallback(unknown).isOk());
    EXPECT_THAT(log.Take(),
                ElementsAre(Info("unregisterKusCallback called" + CallbackAddress(unknown)),
                            Info("unregisterKusCallback binder" + BinderAddress(unknown)),
                            Info("Given callback not registered with this list")));
    EXPECT_THAT(unknown->unlinks, IsEmpty());
    EXPECT_THAT(RegistrationsOf({known}), ElementsAre(1));
}

TEST_F(UnregisterKusCallback, FindsNothingInAnEmptyRegistry) {
    const auto client = MakeClient();
    EXPECT_TRUE(service->unregisterKusCallback(client).isOk());
    EXPECT_EQ(1, log.CountOf(Info("Given callback not registered with this list")));
}

TEST_F(UnregisterKusCallback, TakesBackOneRegistrationTheOldestFirst) {
    const auto client = MakeClient();
    service->registerKusCallback(client);
    service->registerKusCallback(client);
    const auto recipients = client->Recipients();
    log.Take();

    service->unregisterKusCallback(client);
    EXPECT_EQ(1, log.CountOf(Info("Size of callbacks at unregisterKusCallback1")));
    EXPECT_THAT(client->Recipients(), ElementsAre(recipients[1]));
    EXPECT_THAT(RegistrationsOf({client}), ElementsAre(1));

    service->unregisterKusCallback(client);
    EXPECT_EQ(1, log.CountOf(Info("Size of callbacks at unregisterKusCallback0")));
    EXPECT_THAT(client->Recipients(), IsEmpty());
    EXPECT_THAT(RegistrationsOf({client}), ElementsAre(0));

    log.Take();
    service->unregisterKusCallback(client);
    EXPECT_EQ(1, log.CountOf(Info("Given callback not registered with this list")));
}

TEST_F(UnregisterKusCallback, ForgetsAClientThatCannotBeUnlinked) {
    const auto client = AddClient();
    client->unlinkResult = DEAD_OBJECT;
    log.Take();
    EXPECT_TRUE(service->unregisterKusCallback(client).isOk());
    EXPECT_THAT(log.Take(),
                ElementsAre(Info("unregisterKusCallback called" + CallbackAddress(client)),
                            Info("unregisterKusCallback binder" + BinderAddress(client)),
                            Error("Failed to unlink death recipient from binder"),
                            Info("Size of callbacks at unregisterKusCallback0")));
    EXPECT_THAT(RegistrationsOf({client}), ElementsAre(0));
}

TEST_F(UnregisterKusCallback, ErasesTheEntryBeforeItUnlinks) {
    const auto client = MakeClient<LinkedCallback>();
    service->registerKusCallback(client);
    client->onUnlink = [&](const wp<IBinder::DeathRecipient>& recipient) {
        // The client's own, the one that unlinks, and this one: the registry has none.
        EXPECT_EQ(3, recipient.promote()->getStrongCount());
    };
    service->unregisterKusCallback(client);
    EXPECT_THAT(client->unlinks, SizeIs(1));
}

TEST_F(UnregisterKusCallback, HoldsTheRecipientWhileItUnlinks) {
    const auto client = MakeClient<LinkedCallback>();
    service->registerKusCallback(client);
    // Nobody but the registry holds it now, as when the driver's record is all there is.
    client->FakeCallback::unlinkToDeath(client->Recipients()[0], nullptr, 0, nullptr);
    bool held = false;
    client->onUnlink = [&](const wp<IBinder::DeathRecipient>& recipient) {
        held = recipient.promote() != nullptr;
    };
    service->unregisterKusCallback(client);
    EXPECT_TRUE(held);
}

TEST_F(UnregisterKusCallback, LetsGoOfTheRecipientAndTheClient) {
    sp<FakeCallback> client = new FakeCallback();
    const wp<FakeCallback> observed = client;
    service->registerKusCallback(client);
    const wp<IBinder::DeathRecipient> recipient = client->Recipients()[0];
    service->unregisterKusCallback(client);
    EXPECT_EQ(nullptr, recipient.promote().get());
    client = nullptr;
    EXPECT_EQ(nullptr, observed.promote().get());
}

// --- The recipient -----------------------------------------------------------------------------

using DeathRecipientTest = RegistryTest;

TEST_F(DeathRecipientTest, MustHaveACallback) {
    const ProcessResult child = RunInChild([&] { new Recipient(nullptr, service.get()); });
    EXPECT_EQ(-1, child.status);
    EXPECT_EQ(SIGABRT, child.signal);
    EXPECT_EQ("F Check failed: callback_.get() \n", child.err);
}

TEST_F(DeathRecipientTest, MustHaveAnOwner) {
    const auto client = MakeClient();
    const ProcessResult child = RunInChild([&] { new Recipient(client, nullptr); });
    EXPECT_EQ(-1, child.status);
    EXPECT_EQ(SIGABRT, child.signal);
    EXPECT_EQ("F Check failed: owner_ \n", child.err);
}

TEST_F(DeathRecipientTest, MissesItsCallbackBeforeItsOwner) {
    const ProcessResult child = RunInChild([] { new Recipient(nullptr, nullptr); });
    EXPECT_EQ(SIGABRT, child.signal);
    EXPECT_EQ("F Check failed: callback_.get() \n", child.err);
}

TEST_F(DeathRecipientTest, KeepsItsCallbackAliveButNotItsOwner) {
    const auto client = MakeClient();
    const int32_t clientCount = client->getStrongCount();
    const int32_t ownerCount = service->getStrongCount();
    const sp<Recipient> recipient = new Recipient(client, service.get());
    EXPECT_EQ(clientCount + 1, client->getStrongCount());
    EXPECT_EQ(ownerCount, service->getStrongCount());
}

// --- binderDied --------------------------------------------------------------------------------

using BinderDied = RegistryTest;

TEST_F(BinderDied, DropsTheClientAndLogsTheRemainingCount) {
    const auto dead = AddClient();
    const auto other = AddClient();
    log.Take();
    dead->Die();
    EXPECT_THAT(log.Take(),
                ElementsAre(Info("Received binderDied"),
                            Info("Size of callbacks at unregisterKusCallback binderDied 1"),
                            Info("Callback from dead process unregistered")));
    EXPECT_THAT(RegistrationsOf({dead, other}), ElementsAre(0, 1));
}

TEST_F(BinderDied, DropsEachRegistrationOnce) {
    const auto dead = AddClient();
    service->registerKusCallback(dead);
    service->registerKusCallback(dead);
    const auto other = AddClient();
    log.Take();
    dead->Die();
    EXPECT_THAT(log.Take(),
                ElementsAre(Info("Received binderDied"),
                            Info("Size of callbacks at unregisterKusCallback binderDied 3"),
                            Info("Callback from dead process unregistered"),
                            Info("Received binderDied"),
                            Info("Size of callbacks at unregisterKusCallback binderDied 2"),
                            Info("Callback from dead process unregistered"),
                            Info("Received binderDied"),
                            Info("Size of callbacks at unregisterKusCallback binderDied 1"),
                            Info("Callback from dead process unregistered")));
    EXPECT_THAT(RegistrationsOf({dead, other}), ElementsAre(0, 1));
}

TEST_F(BinderDied, ErasesTheFirstEntryWhicheverRecipientIsTold) {
    const auto client = MakeClient();
    service->registerKusCallback(client);
    service->registerKusCallback(client);
    const auto recipients = client->Recipients();
    recipients[1]->binderDied(client);
    // The entry that is left is the second, so its recipient is the one that is unlinked.
    service->unregisterKusCallback(client);
    EXPECT_THAT(client->Recipients(), ElementsAre(recipients[0]));
}

TEST_F(BinderDied, DoesNotUnlinkFromADeadBinder) {
    const auto client = MakeClient<LinkedCallback>();
    service->registerKusCallback(client);
    client->Die();
    EXPECT_THAT(client->unlinks, IsEmpty());
}

TEST_F(BinderDied, LetsGoOfTheClient) {
    sp<FakeCallback> client = new FakeCallback();
    const wp<FakeCallback> observed = client;
    service->registerKusCallback(client);
    client->Die();
    client = nullptr;
    EXPECT_EQ(nullptr, observed.promote().get());
}

TEST_F(BinderDied, EndsTheProcessForAForeignBinder) {
    const auto client = AddClient();
    const auto foreign = AddClient();
    const auto recipient = client->Recipients()[0];
    const ProcessResult child = RunInChild([&] { recipient->binderDied(foreign); });
    EXPECT_EQ(-1, child.status);
    EXPECT_EQ(SIGABRT, child.signal);
    EXPECT_EQ("I Received binderDied\nF Check failed: who.unsafe_get() == binder.get() \n",
              child.err);
}

TEST_F(BinderDied, EndsTheProcessForABinderThatIsNotRegistered) {
    const auto client = MakeClient();
    const sp<Recipient> recipient = new Recipient(client, service.get());
    const ProcessResult child = RunInChild([&] { recipient->binderDied(client); });
    EXPECT_EQ(-1, child.status);
    EXPECT_EQ(SIGABRT, child.signal);
    EXPECT_EQ("I Received binderDied\nF Check failed: iter != owner_->callbacks_.end() \n",
              child.err);
}

// The binder library answers so when the notice is on its way.
TEST_F(BinderDied, HasNothingToDoForAClientThatDiedWhileItUnregistered) {
    const auto client = AddClient();
    const auto other = AddClient();
    client->unlinkResult = DEAD_OBJECT;
    service->unregisterKusCallback(client);
    log.Take();
    client->Die();
    EXPECT_THAT(log.Take(), ElementsAre(Info("Received binderDied")));
    EXPECT_THAT(RegistrationsOf({client, other}), ElementsAre(0, 1));
}

TEST_F(BinderDied, OfAClientThatDiedWhileItUnregisteredOnceErasesItsOtherRegistration) {
    const auto client = AddClient();
    service->registerKusCallback(client);
    client->unlinkResult = DEAD_OBJECT;
    service->unregisterKusCallback(client);
    log.Take();
    client->Die();
    EXPECT_THAT(log.Take(),
                ElementsAre(Info("Received binderDied"), Info("Received binderDied"),
                            Info("Size of callbacks at unregisterKusCallback binderDied 0"),
                            Info("Callback from dead process unregistered")));
}

TEST_F(BinderDied, EndsTheProcessForAClientThatCouldNotBeUnlinked) {
    const auto client = AddClient();
    client->unlinkResult = NAME_NOT_FOUND;
    service->unregisterKusCallback(client);
    const ProcessResult child = RunInChild([&] { client->Die(); });
    EXPECT_EQ(SIGABRT, child.signal);
    EXPECT_EQ("I Received binderDied\nF Check failed: iter != owner_->callbacks_.end() \n",
              child.err);
}

// --- The registry's lock -----------------------------------------------------------------------

// One of several callbacks of one binder. The last reference to it goes with its entry at the end
// of a death notice, which holds the lock until then.
class PassingCallback : public IKUsbServiceCallback {
  public:
    PassingCallback(const sp<IBinder>& binder, std::function<void()> onGone)
        : binder_(binder), onGone_(std::move(onGone)) {}
    ~PassingCallback() override {
        if (onGone_) onGone_();
    }

    Status onDeviceAdded(const DeviceInfo&) override { return Status::ok(); }
    Status onDeviceRemoved(const DeviceInfo&) override { return Status::ok(); }
    int32_t getInterfaceVersion() override { return VERSION; }

  protected:
    IBinder* onAsBinder() override { return binder_.get(); }

  private:
    const sp<IBinder> binder_;
    const std::function<void()> onGone_;
};

bool isAsleep(pid_t thread) {
    std::string stat;
    if (!android::base::ReadFileToString("/proc/self/task/" + std::to_string(thread) + "/stat",
                                         &stat)) {
        return false;
    }
    const size_t behindName = stat.rfind(") ");
    return behindName != std::string::npos && stat[behindName + 2] == 'S';
}

class RegistryLock : public RegistryTest {
  protected:
    // Registers three times with one binder. The first registration's entry is held by the
    // registry alone, so that onErased is called from within the death notice that erases it.
    std::vector<sp<IBinder::DeathRecipient>> RegisterThrice(const std::function<void()>& onErased) {
        service->registerKusCallback(new PassingCallback(binder, onErased));
        binder->unlinkToDeath(binder->Recipients()[0], nullptr, 0, nullptr);
        service->registerKusCallback(new PassingCallback(binder, nullptr));
        service->registerKusCallback(new PassingCallback(binder, nullptr));
        return binder->Recipients();
    }

    const sp<FakeCallback> binder = MakeClient();
};

TEST_F(RegistryLock, KeepsASecondDeathNoticeWaiting) {
    std::vector<sp<IBinder::DeathRecipient>> recipients;
    std::thread second;
    std::atomic<pid_t> id = 0;
    std::atomic<bool> done = false;
    recipients = RegisterThrice([&] {
        second = std::thread([&] {
            id = gettid();
            recipients[1]->binderDied(binder);
            done = true;
        });
        while (log.CountOf(Info("Received binderDied")) < 2) sched_yield();
        // Asleep for this long, it waits for more than the lock of the log.
        for (int asleep = 0; asleep < 1000 && !done;) asleep = isAsleep(id) ? asleep + 1 : 0;
        EXPECT_FALSE(done);
    });
    log.Take();
    recipients[0]->binderDied(binder);
    second.join();
    EXPECT_THAT(log.Take(),
                ElementsAre(Info("Received binderDied"),
                            Info("Size of callbacks at unregisterKusCallback binderDied 2"),
                            Info("Callback from dead process unregistered"),
                            Info("Received binderDied"),
                            Info("Size of callbacks at unregisterKusCallback binderDied 1"),
                            Info("Callback from dead process unregistered")));
}

TEST_F(RegistryLock, IsTakenByDeathNoticesAlone) {
    const auto unknown = MakeClient();
    unknown->linkResult = DEAD_OBJECT;
    const auto told = AddClient();
    const auto recipients = RegisterThrice([&] {
        // Each of these would wait for this very thread.
        service->registerKusCallback(unknown);
        service->unregisterKusCallback(unknown);
        TellClients();
        service->addDeviceList(DeviceInfo(), true, "");
    });
    recipients[0]->binderDied(binder);
    EXPECT_THAT(told->Events(), SizeIs(2));
}

TEST_F(RegistryLock, IsNotHeldWhileAClientIsTold) {
    const auto dead = AddClient();
    const auto slow = AddClient();
    // The death notice comes while another client is being told.
    slow->onEvent = [&](const FakeCallback::Event&) { dead->Die(); };
    TellClients();
    slow->onEvent = nullptr;
    EXPECT_THAT(RegistrationsOf({dead, slow}), ElementsAre(0, 1));
}

// --- A death beside other calls ----------------------------------------------------------------

using DeathOfAClient = RegistryTest;

TEST_F(DeathOfAClient, ThatUnregistersWhileItsNoticeIsUnderWayLeavesNothing) {
    const auto client = AddClient();
    const auto other = AddClient();
    client->onObituary = [&] { service->unregisterKusCallback(client); };
    log.Take();
    client->Die();
    EXPECT_NE(-1, log.IndexOf(Error("Failed to unlink death recipient from binder")));
    EXPECT_EQ(Info("Received binderDied"), log.Lines().back());
    EXPECT_THAT(RegistrationsOf({client, other}), ElementsAre(0, 1));
}

TEST_F(DeathOfAClient, TakesTheRegistrationsThatItDidNotTakeBackMeanwhile) {
    const auto client = AddClient();
    service->registerKusCallback(client);
    service->registerKusCallback(client);
    client->onObituary = [&] { service->unregisterKusCallback(client); };
    client->Die();
    EXPECT_EQ(3, log.CountOf(Info("Received binderDied")));
    EXPECT_EQ(2, log.CountOf(Info("Callback from dead process unregistered")));
    EXPECT_THAT(RegistrationsOf({client}), ElementsAre(0));
}

TEST_F(DeathOfAClient, ThatRegistersWhileItsNoticeIsUnderWayLeavesNothing) {
    const auto client = AddClient();
    client->onObituary = [&] { service->registerKusCallback(client); };
    client->Die();
    EXPECT_NE(-1, log.IndexOf(Error("Failed to link death recipient to binder")));
    EXPECT_THAT(RegistrationsOf({client}), ElementsAre(0));
}

// A client that dies as soon as it is linked to.
class ShortLivedCallback : public FakeCallback {
  public:
    explicit ShortLivedCallback(LogCapture* log) : log_(log) {}
    ~ShortLivedCallback() override { death_.join(); }

    status_t linkToDeath(const sp<DeathRecipient>& recipient, void* cookie,
                         uint32_t flags) override {
        const status_t linked = FakeCallback::linkToDeath(recipient, cookie, flags);
        death_ = std::thread([this] {
            id_ = gettid();
            Die();
        });
        EXPECT_TRUE(log_->WaitFor(Info("Received binderDied")));
        for (int asleep = 0; asleep < 1000;) asleep = isAsleep(id_) ? asleep + 1 : 0;
        return linked;
    }

  private:
    LogCapture* const log_;
    std::atomic<pid_t> id_ = 0;
    std::thread death_;
};

// Otherwise the notice would find no entry, and end the process.
TEST_F(DeathOfAClient, ThatIsBeingRegisteredWaitsForIt) {
    const sp<ShortLivedCallback> client = new ShortLivedCallback(&log);
    service->registerKusCallback(client);
    EXPECT_TRUE(log.WaitFor(Info("Callback from dead process unregistered")));
    EXPECT_THAT(RegistrationsOf({client}), ElementsAre(0));
}

}  // namespace

}  // namespace android::kus::test
