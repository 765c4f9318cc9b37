// SPDX-License-Identifier: GPL-3.0-or-later
// Secondary texts stay readable in the desktop themes people use, light and dark, and follow
// a change of theme while the app runs.
#include "PopoverView.h"
#include "Style.h"
#include "UiTestSupport.h"

#include <QApplication>
#include <QLabel>

#include <memory>

namespace bonkwell {
namespace {

struct Theme {
    const char* name;
    QColor window;
    QColor text;
    QColor placeholder;  // what the style gives as placeholder colour
};

// Window, window text and placeholder colours of the themes' palettes as Qt gets them.
const Theme kThemes[] = {
    {"Breeze", QColor(0xef, 0xf0, 0xf1), QColor(0x23, 0x26, 0x29), QColor(0x23, 0x26, 0x29, 128)},
    // Breeze Dark's placeholder is darker than its background.
    {"Breeze Dark", QColor(0x31, 0x36, 0x3b), QColor(0xfc, 0xfc, 0xfc), QColor(0x23, 0x26, 0x29)},
    {"Adwaita", QColor(0xf6, 0xf5, 0xf4), QColor(0x2e, 0x34, 0x36), QColor(0x92, 0x95, 0x95)},
    {"Adwaita-dark", QColor(0x35, 0x35, 0x35), QColor(0xee, 0xee, 0xec), QColor(0x4a, 0x4a, 0x4a)},
};

QPalette paletteOf(const Theme& theme) {
    QPalette p = QApplication::palette();
    p.setColor(QPalette::Window, theme.window);
    p.setColor(QPalette::WindowText, theme.text);
    p.setColor(QPalette::Text, theme.text);
    p.setColor(QPalette::ButtonText, theme.text);
    p.setColor(QPalette::PlaceholderText, theme.placeholder);
    return p;
}

class ContrastTest : public ::testing::Test {
  protected:
    void SetUp() override { saved = QApplication::palette(); }
    void TearDown() override {
        view.reset();
        QApplication::setPalette(saved);
    }

    void build() {
        view = std::make_unique<PopoverView>(*f.state, f.detector, f.audio, f.packs, f.engine,
                                             nullptr, nullptr, nullptr);
        view->show();
    }

    void expectReadable(const Theme& theme) {
        const QList<QLabel*> labels = test::secondaryLabels(view.get());
        ASSERT_EQ(labels.size(), 5) << theme.name;
        for (QLabel* label : labels) {
            const QColor drawn = label->palette().color(label->foregroundRole());
            const QColor behind = view->palette().color(QPalette::Window);
            EXPECT_EQ(behind, theme.window) << theme.name;
            EXPECT_GE(style::contrastRatio(drawn, behind), 4.5)
                << theme.name << " " << label->text().toStdString() << " "
                << drawn.name().toStdString() << " on " << behind.name().toStdString();
            // Still secondary: dimmer than the primary text.
            EXPECT_LT(style::contrastRatio(drawn, behind), style::contrastRatio(theme.text, behind))
                << theme.name;
        }
    }

    QPalette saved;
    test::ViewFixture f;
    std::unique_ptr<PopoverView> view;
};

}  // namespace

TEST(SecondaryText, KeepsFourPointFiveToOneInEveryTheme) {
    for (const Theme& theme : kThemes) {
        const QColor secondary = style::secondaryText(paletteOf(theme));
        EXPECT_GE(style::contrastRatio(secondary, theme.window), 4.5) << theme.name;
        EXPECT_NE(secondary, theme.text) << theme.name;
    }
}

TEST(SecondaryText, ContrastRatioIsTheWcagOne) {
    EXPECT_NEAR(style::contrastRatio(Qt::black, Qt::white), 21.0, 0.01);
    EXPECT_NEAR(style::contrastRatio(Qt::white, Qt::white), 1.0, 0.001);
    EXPECT_NEAR(style::contrastRatio(QColor(0x76, 0x76, 0x76), Qt::white), 4.54, 0.02);
}

TEST_F(ContrastTest, ThePanelsSecondaryTextsAreReadableInEachTheme) {
    for (const Theme& theme : kThemes) {
        QApplication::setPalette(paletteOf(theme));
        build();
        expectReadable(theme);
    }
}

TEST_F(ContrastTest, TheyFollowAThemeChangeWhileShown) {
    QApplication::setPalette(paletteOf(kThemes[0]));
    build();
    expectReadable(kThemes[0]);
    QApplication::setPalette(paletteOf(kThemes[1]));  // Breeze to Breeze Dark, running
    QCoreApplication::processEvents();
    expectReadable(kThemes[1]);
    QApplication::setPalette(paletteOf(kThemes[2]));
    QCoreApplication::processEvents();
    expectReadable(kThemes[2]);
}

}  // namespace bonkwell
