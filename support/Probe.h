// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNSUPPORT_PROBE_H
#define VORNSUPPORT_PROBE_H

/** @file
 *  The static probes of the libraries, for tracers. Not installed.
 *
 *  A probe is one no-op in the code and a note in the file that names it, its place and where its arguments
 *  stand; a tracer that attaches puts a breakpoint there. So its arguments must be at hand: what has to be
 *  computed costs also when nobody looks.
 */

#if __has_include(<sys/sdt.h>)
#    define SDT_USE_VARIADIC
#    include <sys/sdt.h>
/** VORN_PROBE(name, arguments...): the probe vornnet:name, with up to 12 integers and pointers. */
#    define VORN_PROBE(...) STAP_PROBEV(vornnet, __VA_ARGS__)
#else
#    define VORN_PROBE(...) static_cast<void>(0)
#endif

#endif
