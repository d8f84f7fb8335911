#include "companion/signsouthinterface.h"

SignSouthInterface* SignSouthInterface::instance()
{
    // Starting the service, its local socket and the signing requests arrive with the signing
    // commands; until then nothing emits sig_msg.
    static SignSouthInterface client;
    return &client;
}
