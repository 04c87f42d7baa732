// ObjectSearchTest.cpp - Qt object look-ups by class and name on a real tree of objects and widgets,
// and the GUI test in a widget application.
#include "DatesAndUrls.h"
#include "PatternMatch.h"
#include "TestHelpers.h"

#include <QLabel>
#include <QPushButton>
#include <QTimer>
#include <QWidget>

#include <vector>

namespace {

// root (QWidget)
//   panel (QWidget)
//     ok (QPushButton)
//     label (QLabel)
//     helper (QTimer)
//   timer (QTimer, named "ok")
//   other (QWidget)
//     ok (QPushButton)
struct Tree {
    QWidget root;
    QWidget* panel;
    QPushButton* ok;
    QLabel* label;
    QTimer* helper;
    QTimer* timer;
    QWidget* other;
    QPushButton* ok2;

    Tree()
    {
        panel = new QWidget(&root);
        panel->setObjectName("panel");
        ok = new QPushButton(panel);
        ok->setObjectName("ok");
        label = new QLabel(panel);
        label->setObjectName("label");
        helper = new QTimer(panel);
        helper->setObjectName("helper");
        timer = new QTimer(&root);
        timer->setObjectName("ok");
        other = new QWidget(&root);
        other->setObjectName("other");
        ok2 = new QPushButton(other);
        ok2->setObjectName("ok");
    }
};

} // namespace

TEST(ObjectSearch, QueryListByClassAndName)
{
    Tree t;
    EXPECT_EQ(qtsp_QueryList(&t.root, "QWidget", nullptr, false, true),
              (QList<QObject*>{t.panel, t.ok, t.label, t.other, t.ok2}));
    EXPECT_EQ(qtsp_QueryList(&t.root, "QWidget", nullptr, true, false), (QList<QObject*>{t.panel, t.other}));
    EXPECT_EQ(qtsp_QueryList(&t.root, nullptr, "ok", false, true), (QList<QObject*>{t.ok, t.timer, t.ok2}));
    EXPECT_EQ(qtsp_QueryList(&t.root, "QAbstractButton", "ok", false, true), (QList<QObject*>{t.ok, t.ok2}));
    EXPECT_EQ(qtsp_QueryList(&t.root, "QTimer", nullptr, false, true), (QList<QObject*>{t.helper, t.timer}));
    EXPECT_EQ(qtsp_QueryList(&t.root, "QObject", nullptr, false, false), (QList<QObject*>{t.panel, t.timer, t.other}));
    EXPECT_TRUE(qtsp_QueryList(&t.root, nullptr, "OK", false, true).isEmpty()); // names are case-sensitive
    EXPECT_TRUE(qtsp_QueryList(t.label, nullptr, nullptr, false, true).isEmpty());
    EXPECT_TRUE(qtsp_QueryList(nullptr, nullptr, nullptr, false, true).isEmpty());
}

TEST(ObjectSearch, SearchChildTakesNameBeforeClass)
{
    Tree t;
    EXPECT_EQ(qtsp_SearchChild(&t.root, "ok", nullptr, true), t.ok);
    EXPECT_EQ(qtsp_SearchChild(&t.root, "ok", nullptr, false), t.timer);
    EXPECT_EQ(qtsp_SearchChild(&t.root, "ok", "QTimer", true), t.timer);
    EXPECT_EQ(qtsp_SearchChild(&t.root, "label", "QWidget", false), nullptr);
    EXPECT_EQ(qtsp_SearchChild(&t.root, "label", "QWidget", true), t.label);
    EXPECT_EQ(qtsp_SearchChild(t.ok, nullptr, nullptr, true), nullptr);
}

// A chain of objects deeper than the call stack holds frames for is searched to its end, in the same
// order. (Its objects are deleted from the deepest up: Qt deletes children by recursion.)
TEST(ObjectSearch, AChainDeeperThanTheStackIsSearched)
{
    const int depth = 300000;
    std::vector<QObject*> chain{new QObject};
    for (int i = 1; i < depth; ++i)
        chain.push_back(new QObject(chain.back()));
    chain[depth / 2]->setObjectName("middle");
    chain.back()->setObjectName("deepest");
    QTimer* const sideline = new QTimer(chain[1]);
    sideline->setObjectName("deepest");
    EXPECT_EQ(qtsp_SearchChild(chain[0], "deepest", "QObject", true), chain.back());
    EXPECT_EQ(qtsp_SearchChild(chain[0], "deepest", "QTimer", true), sideline);
    EXPECT_EQ(qtsp_QueryList(chain[0], nullptr, "deepest", false, true), (QList<QObject*>{chain.back(), sideline}));
    EXPECT_EQ(qtsp_QueryList(chain[0], nullptr, "middle", false, true), (QList<QObject*>{chain[depth / 2]}));
    EXPECT_EQ(qtsp_QueryList(chain[0], nullptr, nullptr, false, true).size(), depth);
    for (auto it = chain.rbegin(); it != chain.rend(); ++it)
        delete *it;
}

TEST(ObjectSearch, WidgetApplicationHasAGui)
{
    EXPECT_TRUE(sp_HasGui());
}
