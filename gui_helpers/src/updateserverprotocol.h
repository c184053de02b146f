// SPDX-License-Identifier: MIT
//
// The words of the update-server protocol and the keys of the error trees that failed
// requests return.
//
// Requests are single text lines ("LIST id mask\n", "GE2T id mask version\n") or the
// binary usage record ("USAGE <length> <tree bytes>"). Every reply is framed as
// "<WORD> <decimal length> <body>"; the body is a settings tree in its byte form, except
// for ERROR (text and a line feed) and ACK (free text holding "USAGE").
//
// The digit inside "LIS2T" and "GE2T" is deliberate: it is what the server expects.
#pragma once

#include "gui_helpers_export.h"
#include "vxtypes.h"

#include <QString>

namespace updateserver
{

/** Request and reply word of the product/firmware list. */
inline constexpr char LIST[] = "LIST";
/** Request and reply word of the list in its second form (modern device ids). */
inline constexpr char LIST2[] = "LIS2T";
/** Request word of the plain fetch; the client does not recognise it as a reply word. */
inline constexpr char GET[] = "GET";
/** Request and reply word of the working fetch. */
inline constexpr char GET2[] = "GE2T";
/** Usage record; as a reply only through an acknowledgement (ACK). */
inline constexpr char USAGE[] = "USAGE";
/** Acknowledgement of a usage record. */
inline constexpr char ACK[] = "ACK";
/** Error reply: a text and a line feed. */
inline constexpr char ERR[] = "ERROR";
/** Request and reply words of the licence look-ups. */
inline constexpr char PRODUCTKEY[] = "PRODUCTKEY";
inline constexpr char CUSTOMERINFO[] = "CUSTOMERINFO";
/** Reply command that a connection drop leaves for a waiting request (never on the wire). */
inline constexpr char CLOSED[] = "CLOSED";

/** Section of a locally made error tree. */
inline constexpr char ERROR_SECTION[] = "error";
/** Keys inside ERROR_SECTION; every value is text. */
inline constexpr char ERROR_MESSAGE_SETTING[] = "message";
inline constexpr char ERROR_COMMAND_SETTING[] = "command";
inline constexpr char ERROR_ID_SETTING[] = "id";
inline constexpr char ERROR_MASK_SETTING[] = "mask";
/** Only in the error trees of GET and GE2T. */
inline constexpr char ERROR_VERSION_SETTING[] = "version";

/**
 * Request argument for a legacy device: @p prefix, the identifier's text (eight
 * hexadecimal digits), @p suffix.
 */
GUI_HELPERS_EXPORT QString legacyDeviceString(const VxDeviceId& id, const QString& prefix = QString(), const QString& suffix = QString());
/** Request argument for a modern device: @p prefix, the detailed device-type text, @p suffix. */
GUI_HELPERS_EXPORT QString modernDeviceString(const VxDeviceId& id, const QString& prefix = QString(), const QString& suffix = QString());

} // namespace updateserver
