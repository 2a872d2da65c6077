#include "HTTP/HTTPLayer.h"

#include "Support/FakeMultiPointLayer.h"
#include "Support/ScriptedHandler.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace
{

using NVQTest::CFakeDataLayer;
using NVQTest::CFakeMultiPointLayer;
using NVQTest::CScriptedHandler;

// The lenient reference parser, the layer's default, answers it; strict
// parsing refuses the blank before the colon.
const char c_getRoot[] = "GET / HTTP/1.1\r\nHost : a\r\n\r\n";

TEST(HTTPLayerTest, ConnectionsCountFromOneAndLeaveTheTableWhenClosedOrDetached)
{
    CFakeMultiPointLayer framework;
    CScriptedHandler handler;
    {
        NVQ::CHTTPLayer layer(framework);
        layer.RegisterHandler(handler, false);
        ASSERT_NE(nullptr, framework.m_pNotification);
        CFakeDataLayer *first = framework.Accept();
        framework.Accept(false); // the framework has no data layer: no ID used
        CFakeDataLayer *second = framework.Accept();
        EXPECT_EQ(std::vector<bool>({true, false, true}), framework.m_results);
        EXPECT_EQ(2u, layer.GetConnectionPointCount());
        for (CFakeDataLayer *connection : {first, second}) {
            connection->Arrive(c_getRoot);
            connection->DeliverData();
        }
        EXPECT_EQ(std::vector<int>({1, 2}), handler.ProcessIDs());

        // The multi-point layer's own close notice leaves the table alone.
        framework.m_pNotification->OnConnectionClosed(*first, framework.m_remote, framework.m_local);
        EXPECT_EQ(2u, layer.GetConnectionPointCount());
        // A closed connection leaves it; its ID is not handed out again.
        first->DeliverClose();
        EXPECT_EQ(1u, layer.GetConnectionPointCount());
        EXPECT_EQ(nullptr, first->m_pNotification) << "destroyed at once, unregistering";
        // A streamed answer detaches its connection point: it leaves at once.
        handler.StreamPieces({"a", "b"});
        CFakeDataLayer *third = framework.Accept();
        third->Arrive(c_getRoot);
        third->DeliverData();
        EXPECT_EQ(std::vector<int>({1, 2, 3}), handler.ProcessIDs());
        EXPECT_EQ(1, third->m_closes);
        EXPECT_EQ(1u, layer.GetConnectionPointCount());
    }
    EXPECT_EQ(1, framework.m_unregistrations);
    EXPECT_EQ(nullptr, framework.m_accepted[2]->m_pNotification)
        << "the layer released its connection points";
}

TEST(HTTPLayerTest, RegistryOrderAndRemoval)
{
    NVQ::CHTTPLayer layer;
    CScriptedHandler x("/"), y("/"), z("/");
    NVQ::CHTTPRequest request;
    request.SetUri("/a");
    EXPECT_EQ(nullptr, layer.FindHandler(request));

    layer.RegisterHandler(x, false);
    layer.RegisterHandler(y, false);
    layer.RegisterHandler(z, true);
    EXPECT_EQ(&z, layer.FindHandler(request));
    EXPECT_TRUE(layer.UnregisterHandler(z));
    EXPECT_EQ(&x, layer.FindHandler(request));

    layer.RegisterHandler(y, false); // y now stands twice, behind x
    EXPECT_TRUE(layer.UnregisterHandler(x));
    EXPECT_EQ(&y, layer.FindHandler(request));
    EXPECT_TRUE(layer.UnregisterHandler(y) && layer.UnregisterHandler(y)) << "once for each registration";
    EXPECT_FALSE(layer.UnregisterHandler(y));
    EXPECT_FALSE(layer.UnregisterHandler(z)) << "never registered any more";
}

} // namespace
