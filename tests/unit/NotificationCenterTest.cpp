#include <gtest/gtest.h>
#include <kestrelvue/NotificationCenter.h>

using namespace kestrelvue;

TEST(NotificationCenter, HandlerMayRemoveItselfAndOthersDuringPost) {
    auto center = NotificationCenter::make();
    int a = 0, b = 0;
    int ownerA, ownerB;
    center->addObserver(&ownerA, "n", [&](const Notification&) {
        ++a;
        center->removeObserver(&ownerA);
        center->removeObserver(&ownerB);
    });
    center->addObserver(&ownerB, "n", [&](const Notification&) { ++b; });
    center->post("n");
    center->post("n");
    EXPECT_EQ(a, 1);
    EXPECT_EQ(b, 0);
}
