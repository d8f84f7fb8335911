// The card reader of the portable device library: ID and social-security cards simulated from
// the device profile ("cards"), bank and IC cards from a real PC/SC reader when there is one,
// the SAM module, and the voice prompts.
#pragma once

#include <QByteArray>
#include <QString>

#include <cstdint>
#include <utility>
#include <vector>

namespace portable::cards {

// Why a read failed; the number is the "code" of the card text.
enum class Failure { None = 0, NoCard = 1, NoReader = 2, Busy = 3, ReadError = 4, UnknownType = 5 };

// A card text as the library hands it out: compact JSON in pure ASCII.
using Fields = std::vector<std::pair<QString, QString>>;
QString asciiJson(const Fields& fields, const QString& leadingNumberKey = QString(), int leadingNumber = 0);
QString failureText(Failure why);
QString failureText(Failure why, const QString& detail);

// The ID card: the text of the six ID reads, and ReadCard's form ({"result":1,...}).
QString idCardText();
QString readCardText();
QByteArray idChipSerial();   // empty without a card
// The social-security card; the type is logged, every type reads the same card.
QString socialSecurityText(const char* fn, int type, bool* ok);
// The bank card on the reader type's interface (0 any, 1 contact, 2 contactless).
QString bankCardText(int readerType, bool* ok);
// UID bytes 0-3 of the IC card, little-endian; 0 without a card.
int icCardSerial();
bool samPresent();
QByteArray samId();

// The reader choice of bOpenIDCardUSBPort, and its release.
bool openUsb(const QByteArray& port);
bool openSerial(const QByteArray& device);
bool close();

// Voice prompt n: true when playback (or the file written instead) started.
bool playVoice(int n);

// The drawn sample portrait, base64 of a 102 x 126 JPEG.
const char* samplePortraitBase64();

}  // namespace portable::cards
