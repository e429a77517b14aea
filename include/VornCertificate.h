// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNCERTIFICATE_H
#define VORNCERTIFICATE_H

#include "VornNetExport.h"

#include <VornString.h>

namespace VornNet {

/**
 * Names the certificate and key files of an SSL server. It encrypts nothing and opens no file.
 *
 * Thread-safety: as any value.
 * Blocking: none.
 * Ownership: holds copies of the paths.
 * Signals: none.
 * Errors: std::bad_alloc only.
 */
class VORNNET_API VornCertificate {
public:
    /** Format of a file; 0 is the only value. */
    typedef int Type;

    /**
     * Describes one certificate and its key.
     * @param sFile     path of the certificate file
     * @param sType     its format, see toType()
     * @param sKeyFile  path of the private key file
     * @param sKeyType  its format, see toType()
     */
    VornCertificate(const VornString& sFile, const VornString& sType, const VornString& sKeyFile,
                    const VornString& sKeyType);
    /** Copies member by member. */
    VornCertificate(const VornCertificate& source);
    /** Assigns member by member. */
    VornCertificate& operator=(const VornCertificate& source);
    virtual ~VornCertificate();

    /** @return the path of the certificate file. */
    virtual const VornString& getFile();

    /** @return the format of the certificate file. */
    virtual Type getType();

    /** @return the path of the private key file. */
    virtual const VornString& getKeyFile();

    /** @return the format of the private key file. */
    virtual Type getKeyType();

    /** @return 0, whatever the text: no format has a name. */
    static Type toType(const VornString& sType);

protected:
    VornString m_sFile;    ///< path of the certificate file
    Type m_type;           ///< its format
    VornString m_sKeyFile; ///< path of the private key file
    Type m_keyType;        ///< its format
};

} // namespace VornNet

#endif
