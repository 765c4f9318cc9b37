#!/usr/bin/python3
# SPDX-License-Identifier: GPL-3.0-or-later
"""The shared desktop checks measure what they say, on images made here."""
import os
import sys
import tempfile
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from checks import (Checks, Image, changed_columns, changed_rect, contrast_ratio,  # noqa: E402
                    icon_contrast, opens_at, text_contrast, text_rows)
from desktop_driver import Failure  # noqa: E402


def image(width, height, fill, boxes=()):
    """An image of `fill` with rectangles [(rect, colour)] painted on it."""
    data = bytearray(bytes(fill) * (width * height))
    for (x, y, w, h), colour in boxes:
        for row in range(y, y + h):
            for col in range(x, x + w):
                i = (row * width + col) * 3
                data[i:i + 3] = bytes(colour)
    return Image(width, height, bytes(data))


class ContrastTest(unittest.TestCase):
    def test_wcag_extremes_and_a_known_pair(self):
        self.assertAlmostEqual(contrast_ratio((0, 0, 0), (255, 255, 255)), 21.0, places=2)
        self.assertAlmostEqual(contrast_ratio((10, 20, 30), (10, 20, 30)), 1.0)
        # #767676 on white is the well-known 4.54:1 grey.
        self.assertAlmostEqual(contrast_ratio((0x76, 0x76, 0x76), (255, 255, 255)), 4.54, places=2)

    def test_black_icon_on_a_dark_panel_fails_and_a_light_one_passes(self):
        panel = (0x20, 0x20, 0x20)
        dark = image(40, 30, panel, [((10, 5, 16, 16), (0, 0, 0))])
        light = image(40, 30, panel, [((10, 5, 16, 16), (0xee, 0xee, 0xee))])
        # Measured with a margin of bare panel around the icon, as the tests find it.
        self.assertFalse(icon_contrast(dark, (8, 3, 20, 20)).ok)
        self.assertTrue(icon_contrast(light, (8, 3, 20, 20)).ok)

    def test_a_few_stray_pixels_do_not_make_an_icon_visible(self):
        panel = (0x20, 0x20, 0x20)
        shot = image(40, 30, panel, [((10, 5, 16, 16), (0x18, 0x18, 0x18)),
                                     ((12, 7, 2, 2), (255, 255, 255))])
        self.assertFalse(icon_contrast(shot, (10, 5, 16, 16)).ok)

    def test_text_contrast_reads_the_text_and_its_background(self):
        back = (0x2a, 0x2e, 0x32)
        grey = image(60, 16, back, [((5, 4, 30, 2), (0x60, 0x60, 0x60)), ((5, 10, 30, 2), (0x60, 0x60, 0x60))])
        measure = text_contrast(grey, (0, 0, 60, 16), "hint")
        self.assertEqual(measure.back, back)
        self.assertEqual(measure.fore, (0x60, 0x60, 0x60))
        self.assertFalse(measure.ok)
        with self.assertRaises(Failure):
            text_contrast(image(60, 16, back), (0, 0, 60, 16), "empty")


class IconBoxTest(unittest.TestCase):
    def test_an_icon_in_a_box_of_its_own_is_measured_against_the_box(self):
        # A dark bar; the tray draws a blue box holding a black icon.
        shot = image(60, 30, (0x2b, 0x30, 0x3b), [((20, 0, 40, 30), (0x29, 0x80, 0xb9)),
                                                  ((30, 7, 16, 16), (0, 0, 0))])
        measure = icon_contrast(shot, (20, 0, 40, 30))
        self.assertEqual(measure.back, (0x29, 0x80, 0xb9))
        self.assertEqual(measure.fore, (0, 0, 0))


class MenuRowsTest(unittest.TestCase):
    def test_text_lines_are_found_and_rules_and_borders_are_not(self):
        menu = image(100, 60, (250, 250, 250), [((0, 0, 100, 1), (120, 120, 120)),
                                                ((0, 0, 1, 60), (120, 120, 120)),
                                                ((99, 0, 1, 60), (120, 120, 120)),
                                                ((10, 5, 30, 8), (30, 30, 30)),
                                                ((0, 20, 100, 1), (200, 200, 200)),
                                                ((10, 30, 40, 9), (30, 30, 30))])
        self.assertEqual(text_rows(menu, (0, 0, 100, 60)), [(5, 12), (30, 38)])


class ChangeTest(unittest.TestCase):
    def test_a_new_icon_and_a_ticking_clock_are_told_apart(self):
        before = image(200, 24, (50, 50, 50), [((150, 6, 30, 10), (200, 200, 200))])
        after = image(200, 24, (50, 50, 50), [((150, 6, 30, 10), (200, 200, 200)),
                                              ((100, 4, 16, 16), (250, 250, 250)),
                                              ((160, 6, 4, 10), (50, 50, 50))])
        self.assertEqual(changed_rect(before, after), (100, 4, 64, 16))
        self.assertEqual(changed_columns(before, after, (0, 0, 200, 24)),
                         [(100, 4, 16, 16), (160, 6, 4, 10)])
        self.assertIsNone(changed_rect(before, before))


class PlaceTest(unittest.TestCase):
    def test_a_panel_under_the_icon_is_at_it_and_one_far_away_is_not(self):
        icon = (1200, 0, 24, 24)
        self.assertIsNone(opens_at((1000, 24, 280, 400), icon))
        self.assertIsNotNone(opens_at((0, 24, 280, 400), icon))
        self.assertIsNotNone(opens_at((1000, 200, 280, 400), icon))


class ChecksTest(unittest.TestCase):
    def test_a_failed_check_fails_the_table_and_the_others_still_run(self):
        checks = Checks("test desktop")
        checks.run("first", lambda: (_ for _ in ()).throw(Failure("broken")))
        ran = []
        checks.run("second", lambda: ran.append(1))
        self.assertEqual(ran, [1])
        with self.assertRaises(Failure):
            checks.finish()

    def test_load_reads_what_imagemagick_wrote(self):
        with tempfile.TemporaryDirectory() as folder:
            path = os.path.join(folder, "shot.png")
            import subprocess
            subprocess.run(["convert", "-size", "4x3", "xc:#102030", path], check=True)
            shot = Image.load(path)
            self.assertEqual((shot.width, shot.height), (4, 3))
            self.assertEqual(shot.pixel(3, 2), (0x10, 0x20, 0x30))


if __name__ == "__main__":
    unittest.main()
