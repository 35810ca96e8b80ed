#include "tests/support/doubles/double_services.h"

#include "client/cmn_abuf.h"
#include "client/pkcs5C.h"
#include "client/pkixkeyclnt.h"
#include "client/s_filestoreC.h"

DoubleServices::DoubleServices() {
    host_.giveNewGuards();
    x509cmn_ = new DoubleX509Cmn;
    pkcs5_ = new DoublePkcs5;
    pkixkey_ = new DoubleKeyService;
    host_.offer(kX509CmnId, x509cmn_.get());
    host_.offer(kPkcs5Id, pkcs5_.get());
    host_.offer(kPkixKeyId, pkixkey_.get());
}

DoubleServices::~DoubleServices() {
    FileStoreSrvC = aFileStoreSrv(nullptr);
    CMN_FILESTORE_S = aFileStoreSrvExt(nullptr);
    theX509Cmn = X509CmnSrv();
    pkcs5srv = PKCS5();
    pkixKeyClnt = aPkixKeyClnt();
}
