// Linked the way a plain consumer links: libi18n.a before libVuroHelper.so. The
// catalogue must then exist once per image, each built and destroyed once; a
// shared copy that both images construct and destroy aborts at exit.
#include "libi18n/catalogue.h"
#include "libvurohelper/exceptions.h"

int main() {
    namespace mm = ::brenholt::monitoring_modules;
    try {
        throw mm::libvurohelper::utils::exceptions::setting_not_available("k");
    } catch (const mm::libi18n::i18n_exception& e) {
        return mm::libi18n::catalogue::all().size() == 195 && e.get_i18n_msg().key.size() > 0 ? 0 : 1;
    }
    return 1;
}
