#pragma once

/**
 * @brief Tells a screen reader the truth about the launcher's buttons, pickers,
 * progress bar and spinner, where Qt 6.4 does not.
 *
 * Qt 6.4 reports every Qt Quick control as enabled, greyed out or not, and carries
 * out a screen reader's press on a greyed one; it replaces the role a view gives a
 * button (a segment is a radio button) with its own; it gives a progress bar no
 * value and a busy indicator a role readers skip. A picker's choice reaches AT-SPI
 * readers as its text, and a change of choice is announced. These few kinds of
 * control get an accessible interface of ours; every other item keeps Qt's.
 *
 * A button's role is its `accessibleRole` property when it has one (VButton does).
 */
void installControlAccessibility();
