#include <algorithm>
#include <fstream>
#include <openssl/engine.h>
#include <openssl/pem.h>
#include <sstream>
#include <string>

// Stands for a security chip: an engine of OpenSSL whose key files have their bytes in reverse order.

namespace
{

EVP_PKEY* loadKey(ENGINE*, const char* name, UI_METHOD*, void*)
{
    std::stringstream content;
    content << std::ifstream(name).rdbuf();
    std::string text = content.str();
    std::reverse(text.begin(), text.end());
    BIO* const bytes = BIO_new_mem_buf(text.data(), static_cast<int>(text.size()));
    EVP_PKEY* const key = PEM_read_bio_PrivateKey(bytes, nullptr, nullptr, nullptr);
    BIO_free(bytes);
    return key;
}

int prepare(ENGINE* engine, const char*)
{
    return ENGINE_set_id(engine, "testengine") != 0 && ENGINE_set_name(engine, "testengine") != 0 &&
                   ENGINE_set_load_privkey_function(engine, loadKey) != 0
               ? 1
               : 0;
}

} // namespace

extern "C"
{
    __attribute__((visibility("default"))) unsigned long v_check(unsigned long version);
    __attribute__((visibility("default"))) int bind_engine(ENGINE* engine, const char* id,
                                                           const dynamic_fns* functions);

    unsigned long v_check(unsigned long)
    {
        return OSSL_DYNAMIC_VERSION;
    }

    int bind_engine(ENGINE* engine, const char* id, const dynamic_fns*)
    {
        return prepare(engine, id);
    }
}
