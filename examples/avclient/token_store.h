// The access tokens that are valid, in the configuration store.
#pragma once

#include <string>

// Looks a token up. False when the store cannot tell; the library logs why.
bool isTokenValid(const std::string& token, bool& valid);

// Makes tokens valid or invalid, all of them or, on failure, none.
bool setTokens(const std::string& lines, bool valid);
