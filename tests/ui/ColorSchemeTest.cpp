// SPDX-License-Identifier: GPL-3.0-or-later
// The app follows the desktop's light or dark preference where the platform's palette does
// not: the panel turns dark under a dark desktop, back while it is open, and a desktop that
// states no preference keeps its own theme.
#include "CalibrationView.h"
#include "ColorSchemeFollower.h"
#include "Log.h"
#include "ManualColorScheme.h"
#include "PopoverView.h"
#include "SettingsWindow.h"
#include "Style.h"
#include "TrayIconArt.h"
#include "UiTestSupport.h"

#include <QApplication>
#include <QEvent>
#include <QLabel>

#include <memory>

namespace bonkwell {
namespace {

// Counts the palette changes a widget receives.
class PaletteChanges final : public QObject {
  public:
    explicit PaletteChanges(QObject* watched) { watched->installEventFilter(this); }
    bool eventFilter(QObject*, QEvent* event) override {
        if (event->type() == QEvent::PaletteChange ||
            event->type() == QEvent::ApplicationPaletteChange) {
            ++count;
        }
        return false;
    }
    int count = 0;
};

// Breeze Dark's colours, as Qt gets them from KDE's settings.
QPalette breezeDark() {
    QPalette p = QApplication::palette();
    p.setColor(QPalette::Window, QColor(0x31, 0x36, 0x3b));
    p.setColor(QPalette::WindowText, QColor(0xfc, 0xfc, 0xfc));
    p.setColor(QPalette::Text, QColor(0xfc, 0xfc, 0xfc));
    p.setColor(QPalette::Base, QColor(0x1b, 0x1e, 0x20));
    return p;
}

class ColorSchemeTest : public ::testing::Test {
  protected:
    void SetUp() override {
        setLogSinkForTesting([this](const QString& line) { log.append(line); });
    }
    void TearDown() override {
        view.reset();
        follower.reset();
        setLogSinkForTesting({});
        QApplication::setPalette(QPalette());
    }

    void openPanel() {
        view = std::make_unique<PopoverView>(*f.state, f.detector, f.audio, f.packs, f.engine,
                                             nullptr, nullptr, nullptr);
        view->show();
        QCoreApplication::processEvents();
    }

    QColor panelWindow() const { return view->palette().color(QPalette::Window); }

    void expectSecondaryReadable(const char* where) {
        const QList<QLabel*> labels = test::secondaryLabels(view.get());
        ASSERT_EQ(labels.size(), 5) << where;
        const QColor behind = panelWindow();
        for (QLabel* label : labels) {
            const QColor drawn = label->palette().color(label->foregroundRole());
            EXPECT_GE(style::contrastRatio(drawn, behind), 4.5)
                << where << " " << label->text().toStdString() << " " << drawn.name().toStdString()
                << " on " << behind.name().toStdString();
            EXPECT_NE(drawn, view->palette().color(QPalette::WindowText)) << where;
        }
    }

    QStringList log;
    test::ViewFixture f;
    ManualColorScheme desktop;
    std::unique_ptr<ColorSchemeFollower> follower;
    std::unique_ptr<PopoverView> view;
};

}  // namespace

TEST_F(ColorSchemeTest, ADarkDesktopGivesThePanelADarkWindowWithReadableSecondaryTexts) {
    ASSERT_FALSE(ColorSchemeFollower::isDark(QApplication::palette()))
        << "the offscreen platform's palette is expected to be light";
    desktop.set(ColorScheme::preferDark);
    follower = std::make_unique<ColorSchemeFollower>(desktop);
    openPanel();
    EXPECT_LT(panelWindow().lightness(), 80) << panelWindow().name().toStdString();
    EXPECT_GE(style::contrastRatio(view->palette().color(QPalette::WindowText), panelWindow()),
              7.0);
    expectSecondaryReadable("dark");
    EXPECT_EQ(log.size(), 1) << log.join('\n').toStdString();
    EXPECT_TRUE(log.value(0).contains("using the dark palette")) << log.value(0).toStdString();
}

TEST_F(ColorSchemeTest, SwitchingWhileThePanelIsOpenRepaintsIt) {
    follower = std::make_unique<ColorSchemeFollower>(desktop);
    openPanel();
    const QColor light = panelWindow();
    EXPECT_GT(light.lightness(), 180);
    PaletteChanges changes(view.get());
    PaletteChanges appChanges(qApp);

    desktop.set(ColorScheme::preferDark);
    QCoreApplication::processEvents();
    EXPECT_GE(changes.count, 1);
    EXPECT_GE(appChanges.count, 1);  // what the tray icon follows
    EXPECT_LT(panelWindow().lightness(), 80);
    expectSecondaryReadable("to dark");
    EXPECT_EQ(trayicon::variantFor(QApplication::palette(), QStringLiteral("XFCE")),
              trayicon::Variant::dark);

    const int before = changes.count;
    desktop.set(ColorScheme::noPreference);  // GNOME's "default" style
    QCoreApplication::processEvents();
    EXPECT_GT(changes.count, before);
    EXPECT_EQ(panelWindow(), light);
    expectSecondaryReadable("back to light");
    EXPECT_EQ(trayicon::variantFor(QApplication::palette(), QStringLiteral("XFCE")),
              trayicon::Variant::light);

    desktop.set(ColorScheme::preferDark);
    QCoreApplication::processEvents();
    EXPECT_LT(panelWindow().lightness(), 80);
    expectSecondaryReadable("dark again");
}

TEST_F(ColorSchemeTest, OpenSettingsAndCalibrationWindowsFollowToo) {
    follower = std::make_unique<ColorSchemeFollower>(desktop);
    SettingsWindowController settings(*f.state, f.detector, f.audio, f.packs, f.engine, {},
                                      f.desktop);
    settings.show();
    CalibrationWindowController calibration(*f.state, f.detector, f.clock);
    calibration.show();
    QCoreApplication::processEvents();
    QWidget* windows[] = {settings.window(), calibration.window()};
    for (QWidget* w : windows) {
        ASSERT_NE(w, nullptr);
        EXPECT_GT(w->palette().color(QPalette::Window).lightness(), 180);
    }
    PaletteChanges settingsChanges(settings.window());
    PaletteChanges calibrationChanges(calibration.window());

    desktop.set(ColorScheme::preferDark);
    QCoreApplication::processEvents();
    EXPECT_GE(settingsChanges.count, 1);
    EXPECT_GE(calibrationChanges.count, 1);
    for (QWidget* w : windows) {
        const QPalette p = w->palette();
        EXPECT_LT(p.color(QPalette::Window).lightness(), 80);
        EXPECT_GE(style::contrastRatio(style::secondaryText(p), p.color(QPalette::Window)), 4.5);
    }

    desktop.set(ColorScheme::noPreference);
    QCoreApplication::processEvents();
    for (QWidget* w : windows) {
        EXPECT_GT(w->palette().color(QPalette::Window).lightness(), 180);
    }
}

TEST_F(ColorSchemeTest, NoPreferenceLeavesThePlatformsPaletteAlone) {
    const QPalette platform = QApplication::palette();
    follower = std::make_unique<ColorSchemeFollower>(desktop);
    EXPECT_FALSE(follower->overriding());
    EXPECT_EQ(QApplication::palette(), platform);
    EXPECT_FALSE(QCoreApplication::testAttribute(Qt::AA_SetPalette));
    EXPECT_TRUE(log.isEmpty()) << log.join('\n').toStdString();
}

TEST_F(ColorSchemeTest, AThemeThatAlreadyMatchesIsKept) {
    // KDE with Breeze Dark: the desktop says dark and Qt's palette is dark already.
    QApplication::setPalette(breezeDark());
    const QPalette kde = QApplication::palette();
    desktop.set(ColorScheme::preferDark);
    follower = std::make_unique<ColorSchemeFollower>(desktop);
    EXPECT_FALSE(follower->overriding());
    EXPECT_EQ(QApplication::palette(), kde);
    desktop.set(ColorScheme::noPreference);
    EXPECT_EQ(QApplication::palette(), kde);
}

TEST_F(ColorSchemeTest, ALightDesktopOverADarkPaletteGetsALightOne) {
    const auto palette = ColorSchemeFollower::paletteFor(ColorScheme::preferLight, breezeDark());
    ASSERT_TRUE(palette.has_value());
    EXPECT_FALSE(ColorSchemeFollower::isDark(*palette));
    EXPECT_GT(palette->color(QPalette::Window).lightness(), 180);
    EXPECT_GE(
        style::contrastRatio(style::secondaryText(*palette), palette->color(QPalette::Window)),
        4.5);
    EXPECT_FALSE(ColorSchemeFollower::paletteFor(ColorScheme::preferLight, *palette));
    EXPECT_FALSE(ColorSchemeFollower::paletteFor(ColorScheme::noPreference, breezeDark()));
    EXPECT_FALSE(ColorSchemeFollower::paletteFor(ColorScheme::preferDark, breezeDark()));
}

TEST(DarkPalette, FillsEveryRoleReadably) {
    const QPalette p = ColorSchemeFollower::darkPalette();
    const QColor window = p.color(QPalette::Window);
    const QColor base = p.color(QPalette::Base);
    for (int role = 0; role < QPalette::NColorRoles; ++role) {
        for (auto group : {QPalette::Active, QPalette::Inactive, QPalette::Disabled}) {
            EXPECT_TRUE(p.isBrushSet(group, static_cast<QPalette::ColorRole>(role)))
                << "group " << group << " role " << role;
        }
    }
    EXPECT_GE(style::contrastRatio(p.color(QPalette::WindowText), window), 7.0);
    EXPECT_GE(style::contrastRatio(p.color(QPalette::Text), base), 7.0);
    EXPECT_GE(style::contrastRatio(p.color(QPalette::ButtonText), p.color(QPalette::Button)), 7.0);
    EXPECT_GE(style::contrastRatio(p.color(QPalette::PlaceholderText), base), 4.5);
    EXPECT_GE(style::contrastRatio(p.color(QPalette::Link), base), 4.5);
    EXPECT_GE(style::contrastRatio(p.color(QPalette::LinkVisited), base), 4.5);
    EXPECT_GE(
        style::contrastRatio(p.color(QPalette::HighlightedText), p.color(QPalette::Highlight)),
        3.5);
    EXPECT_GE(style::contrastRatio(p.color(QPalette::ToolTipText), p.color(QPalette::ToolTipBase)),
              7.0);
    // Disabled text is visibly dimmer than enabled text, yet still legible.
    const QColor disabled = p.color(QPalette::Disabled, QPalette::WindowText);
    EXPECT_LT(style::contrastRatio(disabled, window),
              style::contrastRatio(p.color(QPalette::WindowText), window));
    EXPECT_GE(style::contrastRatio(disabled, window), 3.0);
    EXPECT_GE(style::contrastRatio(style::secondaryText(p), window), 4.5);
}

}  // namespace bonkwell
