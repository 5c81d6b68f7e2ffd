#include "PlatformTest.h"
#include "Sandbox.h"

#include <gmock/gmock.h>
#include <filesystem>

#include <chrono>
#include <thread>

using namespace PlatformTest;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

QxCErrorManager& manager() { return *QxCErrorManager::getSingleton(); }

void setError(QxCErrorList& list, const char* text) {
    list.setMessage(QxNSeverity::Error, 0, 1, "test", "%s", text);
}

TEST(ErrorList, KeepsWhatWasSet) {
    const auto list = newErrorList();
    const long long before = std::chrono::duration_cast<std::chrono::milliseconds>(
                                 std::chrono::system_clock::now().time_since_epoch())
                                 .count();

    list->setMessage(QxNSeverity::Warning, 0, 151, "Source", "%d of %s", 3, "four");

    const QxSMessage message = list->getMessages().at(0);
    EXPECT_EQ(message.severity, QxNSeverity::Warning);
    EXPECT_EQ(message.number, 151);
    EXPECT_EQ(message.source, "Source");
    EXPECT_EQ(message.text, "3 of four");
    EXPECT_GE(message.timeMs, before);
    EXPECT_LT(message.timeMs, before + 60000);
}

TEST(ErrorList, KeepsTheOldestEntriesOfAFullList) {
    const auto list = newErrorList(2);

    setError(*list, "first");
    setError(*list, "second");
    setError(*list, "third");

    EXPECT_THAT(texts(*list), ElementsAre("first", "second"));
}

TEST(ErrorList, CountsErrorsItDrops) {
    const auto list = newErrorList(1);

    setError(*list, "first");
    setError(*list, "second");

    EXPECT_EQ(list->getErrorCount(), 2U);
}

TEST(ErrorList, CountsNeitherWarningsNorInformation) {
    const auto list = newErrorList();

    list->setMessage(QxNSeverity::Warning, 0, 1, "test", "warning");
    list->setMessage(QxNSeverity::Info, 0, 1, "test", "information");

    EXPECT_EQ(list->getErrorCount(), 0U);
    EXPECT_EQ(list->getMessages().size(), 2U);
}

TEST(ErrorList, TakesATextLongerThanItsShareOfTheBound) {
    const auto list = newErrorList(10, 300);
    const std::string text(2500, 'x');

    setError(*list, text.c_str());

    EXPECT_THAT(texts(*list), ElementsAre(text));
}

TEST(ErrorList, NeverHoldsMoreTextThanAllEntriesTogetherMay) {
    const auto list = newErrorList(10, 10);

    setError(*list, std::string(60, 'a').c_str());
    setError(*list, std::string(41, 'b').c_str());
    setError(*list, std::string(40, 'c').c_str());

    EXPECT_THAT(texts(*list), ElementsAre(std::string(60, 'a'), std::string(40, 'c')));
    EXPECT_EQ(list->getErrorCount(), 3U);
}

TEST(ErrorList, OfNoEntriesOnlyCounts) {
    const auto none = newErrorList(0);
    const auto negative = newErrorList(-1, -1);

    setError(*none, "text");
    setError(*negative, "text");

    EXPECT_THAT(texts(*none), IsEmpty());
    EXPECT_THAT(texts(*negative), IsEmpty());
    EXPECT_EQ(none->getErrorCount(), 1U);
    EXPECT_EQ(negative->getErrorCount(), 1U);
}

TEST(ErrorList, AcceptsNullTexts) {
    const auto list = newErrorList();
    const char* const nothing = nullptr;

    list->setMessage(QxNSeverity::Error, 0, 1, nothing, nothing);

    EXPECT_EQ(list->getMessages().at(0).source, "");
    EXPECT_EQ(list->getMessages().at(0).text, "");
}

TEST(ErrorList, IsAsNewAfterReset) {
    const auto list = newErrorList(1, 10);
    setError(*list, "0123456789");

    list->reset();

    EXPECT_EQ(list->getErrorCount(), 0U);
    EXPECT_THAT(texts(*list), IsEmpty());
    setError(*list, "9876543210");
    EXPECT_THAT(texts(*list), ElementsAre("9876543210"));
}

TEST(ErrorList, CountsEveryErrorOfManyThreads) {
    const auto list = newErrorList(100);
    const auto report = [&list] {
        for (int i = 0; i < 1000; ++i) {
            setError(*list, "text");
            list->getMessages();
        }
    };

    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back(report);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }

    EXPECT_EQ(list->getErrorCount(), 4000U);
    EXPECT_EQ(list->getMessages().size(), 100U);
}

TEST(ErrorManager, IsSetOnceItWasAskedFor) {
    ASSERT_EQ(QxCErrorManager::s_pErrorManager, nullptr);

    QxCErrorManager* const singleton = QxCErrorManager::getSingleton();

    EXPECT_NE(singleton, nullptr);
    EXPECT_EQ(QxCErrorManager::s_pErrorManager, singleton);
    EXPECT_EQ(QxCErrorManager::getSingleton(), singleton);
}

TEST(ErrorManager, KnowsNoMasterListAtFirst) {
    EXPECT_FALSE(manager().hasMasterErrorList());
    EXPECT_EQ(manager().getMasterErrorList(), nullptr);
}

TEST(ErrorManager, KeepsAMasterListPerThread) {
    const auto list = newErrorList();
    const MasterListScope master(*list);
    bool otherHasOne = true;

    std::thread([&otherHasOne] { otherHasOne = manager().hasMasterErrorList(); }).join();

    EXPECT_EQ(manager().getMasterErrorList(), list.get());
    EXPECT_FALSE(otherHasOne);
}

TEST(ErrorManager, TakesTheMasterListAway) {
    const auto list = newErrorList();
    manager().setMasterErrorList(list.get(), -1, true);

    manager().clearMasterErrorList(-1);
    manager().clearMasterErrorList(-1);

    EXPECT_FALSE(manager().hasMasterErrorList());
}

TEST(ErrorManager, WarnsInTheNewListOfAReplacementThatWasNotAllowed) {
    const auto first = newErrorList();
    const auto second = newErrorList();
    const MasterListScope master(*first);

    manager().setMasterErrorList(second.get(), -1, false);

    EXPECT_EQ(manager().getMasterErrorList(), second.get());
    EXPECT_EQ(second->getMessages().at(0).severity, QxNSeverity::Warning);
    EXPECT_THAT(texts(*first), IsEmpty());
}

TEST(ErrorManager, SaysNothingOfAReplacementThatIsAllowed) {
    const auto first = newErrorList();
    const auto second = newErrorList();
    const MasterListScope master(*first);

    manager().setMasterErrorList(second.get(), -1, true);

    EXPECT_THAT(texts(*second), IsEmpty());
}

TEST(ErrorManager, RefusesToSetTheMasterListOfAnotherThread) {
    const auto list = newErrorList();

    manager().setMasterErrorList(list.get(), 7, true);

    EXPECT_FALSE(manager().hasMasterErrorList());
    EXPECT_EQ(list->getErrorCount(), 1U);
}

TEST(ErrorManager, ForgetsAMasterListThatIsDeleted) {
    auto list = newErrorList();
    manager().setMasterErrorList(list.get(), -1, true);

    list.reset();

    EXPECT_FALSE(manager().hasMasterErrorList());
}

TEST(ErrorManager, DeletesNullLists) {
    manager().deleteErrorList(nullptr);
    manager().deleteMessageList(nullptr);
    manager().sendErrorList(nullptr, 0);
    EXPECT_FALSE(std::filesystem::exists("/run/quolex/messages.jsonl"));
}

TEST(ErrorManager, SendsEachEntryOfAnErrorListAndEmptiesIt) {
    const auto list = newErrorList();
    setError(*list, "first");
    setError(*list, "second");

    manager().sendErrorList(list.get(), 0);

    const auto sent = lines(Sandbox::ReadFile("/run/quolex/messages.jsonl"));
    ASSERT_EQ(sent.size(), 2U);
    EXPECT_THAT(sent[0], testing::HasSubstr("first"));
    EXPECT_THAT(sent[1], testing::HasSubstr("second"));
    EXPECT_THAT(texts(*list), IsEmpty());
    EXPECT_EQ(list->getErrorCount(), 0U);
}

}  // namespace
