// Real contact and contactless readers through pcsc-lite: IC card UIDs and EMV bank cards.
#pragma once

#include "devicelib/portable/cards/cards.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <functional>

namespace portable::cards::pcsc {

// The readers the PC/SC service knows, in its order; empty when it is not running.
QStringList readers();
// Whether a reader's name says contactless (profile "pcsc.contactless", a regular expression).
bool isContactless(const QString& reader);
// Releases the PC/SC context; false when there was none.
bool release();

struct BankCard {
    QByteArray pan;      // digits
    QByteArray expiry;   // YYMM
    QByteArray holder;   // as the card writes it
    QByteArray aid;      // hex
};

// How long one card session may take ("pcsc.timeoutMs", 5000 by default).
int timeoutMs();

// Reads the card in reader: its UID (GET DATA), or its payment application (EMV), within ms;
// a failure says why in *why.
Failure readUid(const QString& reader, int ms, QByteArray* uid, QString* why);
Failure readBankCard(const QString& reader, int ms, BankCard* card, QString* why);

// The EMV steps over any transport: apdu sends one command and gives the card's answer with
// its status word (empty when the card did not answer). Shared by readBankCard and tests.
using Apdu = std::function<QByteArray(const QByteArray&)>;
Failure readEmv(const Apdu& apdu, BankCard* card, QString* why);

}  // namespace portable::cards::pcsc
