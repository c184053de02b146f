// SPDX-License-Identifier: MIT
//
// The maker's own texts and addresses shown by the about box. Everything that names the
// maker or points at its web site lives here, so a rebranded build changes this file only.
// The sentences are marked for translation in the about box's context and translated where
// they are shown.
#pragma once

#include <QtGlobal>

namespace productinfo
{

/** The maker's web site, shown under the "developed by" line until the host names its product. */
inline constexpr const char* makerWebsiteUrl = "https://www.veltrax.example/";
/** The same address as the user reads it. */
inline constexpr const char* makerWebsiteText = "www.veltrax.example";
/** The maker's privacy-policy page behind "Read our privacy policy". */
inline constexpr const char* privacyPolicyUrl = "https://www.veltrax.example/privacy-policy";

/** Copyright and trademark notice shown until the host adds its own trademark lines. */
inline constexpr const char* trademarkSentence = QT_TRANSLATE_NOOP("AboutBox",
    "Some rights reserved. Veltrax and the Veltrax logo are trademarks of "
    "Veltrax Motion Systems.");
/** "Developed by" line shown until the host names its product. */
inline constexpr const char* developedBySentence = QT_TRANSLATE_NOOP("AboutBox", "This application was developed by Veltrax Motion Systems.");

// The Qt row that every about box lists among its licensed components.
inline constexpr const char* qtProjectUrl = "https://www.qt.io/";
inline constexpr const char* qtLicenseUrl = "https://doc.qt.io/qt-5/lgpl.html";
/** The Qt release the licence notice was written for, shown as is. */
inline constexpr const char* qtVersion = "5.14.0";
inline constexpr const char* qtLicense = "Qt GNU LGPL version 3";

} // namespace productinfo
