// A self-signed certificate for the controller, and its key.
#pragma once

#include <string>

// Uses the PEM files that are there, or makes both: a key readable by its owner only, a certificate
// for "localhost" that is valid for a year. False, with a line on standard error, when it cannot.
bool ensureCertificate(const std::string& certFile, const std::string& keyFile);
