// The card-reader library: ID, social-security, bank and IC cards, SAM module, voice prompts.
// C entry points as the server calls them; see doccamera.h for the conventions on texts.
// Card texts are compact JSON in pure ASCII (every other character as a \uXXXX escape), so a
// page can parse them whichever way the server converted the bytes.
#pragma once

class QString;

extern "C" {

// true when the social-security card module answers
bool GetDeviceStatus_dc(void);

// --- ID card ---------------------------------------------------------------------------
// The ID card on the default reader; a heap text, or NULL.
char* sIDCardReader(void);
// The ID card into *out (the library's other readers of the same card).
void ReadSFZCardVX(QString* out);
void readIDMsg_qt(QString* out);
void readIDMsgVX_qt(QString* out);
// The first reader family: *out is a JSON object whose "code" text "0" means success.
void ReadSFZCardBas_VX(QString* out);
// The second reader family.
void ReadSFZCardBas_DK(QString* out);
// reserved is always NULL; param is logged and otherwise unused. A heap JSON text whose
// "result" number is non-zero on success, or NULL.
char* ReadCard(void* reserved, const char* param);
// The ID card chip's serial number; a heap text, or NULL.
char* sReadIDCardSnr(void);

// --- social-security card (basic data, no PIN) -----------------------------------------
void iReadCardBas_noPasam_qt(int type, QString* out);
void ReadCardBasExVX(QString* out, int type);
// The social-security module of the second reader family; true on success.
bool ReadSBKCardBas_DK(int type, QString* out);

// --- bank and IC cards -----------------------------------------------------------------
// readerType: 0 any reader (contact first), 1 contact, 2 contactless. true on success.
bool GetBankCardInfoVX(QString* out, int readerType);
// UID bytes 0-3 of the IC card, little-endian; 0 without a card.
int iReadICCardSnr(void);

// --- the reader and its SAM ------------------------------------------------------------
// "" or "USB1": the first reader; "SIM": the simulated one; otherwise a PC/SC reader name.
bool bOpenIDCardUSBPort(const char* port);
// Opens the serial device to prove it exists, and closes it again.
bool openIDCardSerialPort(const char* device);
bool bCloseIDCardDevie(void);
bool bgetSAMStatus(void);
// The SAM module's id; a heap text, or NULL.
char* GetSAMID(void);

// --- voice prompts ---------------------------------------------------------------------
// Starts prompt n (1 to 8) and returns at once; true when playback started.
bool bPlayVoice(int n);

}  // extern "C"
