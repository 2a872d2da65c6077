#include "HTTP/HTTPContentTypes.h"

#include <gtest/gtest.h>

namespace
{

TEST(HTTPContentTypesTest, ByTheLastExtensionInAnyCaseWithHostEntries)
{
    NVQ::CHTTPContentTypes types;
    types.Set("WASM", "application/x-custom");
    types.Set("dat", "application/x-data");
    types.Set("png", "");
    struct SCase {
        const char *path;
        const char *type; // null: none
    };
    const SCase cases[] = {
        {"/www/app.MJS", "text/javascript; charset=utf-8"},
        {"/www/a.b/index.html", "text/html; charset=utf-8"},
        {"/www/font.woff2", "font/woff2"},
        {"/www/x.wasm", "application/x-custom"},
        {"/www/x.dat", "application/x-data"},
        {"/www/logo.png", nullptr},
        {"/www/a.b/README", nullptr},
        {"/www/name.", nullptr},
        {"/www/x.averyveryverylongextension", nullptr},
    };
    for (const SCase &c : cases) {
        const KZF::tstring *type = types.Find(c.path);
        if (c.type == nullptr)
            EXPECT_EQ(nullptr, type) << c.path;
        else
            EXPECT_TRUE(type != nullptr && *type == c.type) << c.path;
    }
}

} // namespace
