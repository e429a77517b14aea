// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTEST_REGISTRYPLUGIN_H
#define VORNTEST_REGISTRYPLUGIN_H

/**
 * @file
 * What the plug-in offers that the tests load: a shared object which brings the library with it.
 */
extern "C" {

/** Adds a proxy dependent, made of a class of the plug-in's own, whose destructor calls @p destroyed. */
void registerProxy(const char* remoteName, long handle, void (*destroyed)());

/** The size of the process's registry. */
int registrySize();

/** Throws a VornSupport::VornException. */
void throwException(const char* text, int code);

/** Throws a VornNet::VornUnableToResolveNameException. */
void throwUnableToResolveName(const char* text);

/** Throws a VornNet::VornUnableToResolveAddressException. */
void throwUnableToResolveAddress(const char* text);

/** The code of the VornSupport::VornException which @p thrower throws; -1 when it throws something else. */
int codeThrownBy(void (*thrower)());
}

#endif
