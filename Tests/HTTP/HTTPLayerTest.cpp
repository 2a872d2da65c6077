#include "HTTP/HTTPLayer.h"

#include "Support/CapturingLogDevice.h"
#include "Support/FakeMultiPointLayer.h"
#include "Support/ScriptedHandler.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace
{

using NVQTest::CCapturingDevice;
using NVQTest::CFakeDataLayer;
using NVQTest::CFakeMultiPointLayer;
using NVQTest::CScriptedHandler;

const char c_getRoot[] = "GET / HTTP/1.1\r\nHost: a\r\n\r\n";

TEST(HTTPLayerTest, ConnectionIDsCountFromOneAndAFailedAcceptUsesNone)
{
    CFakeMultiPointLayer framework;
    CScriptedHandler handler;
    CCapturingDevice log;
    {
        NVQ::CHTTPLayer layer(framework);
        layer.RegisterHandler(handler, false);
        ASSERT_NE(nullptr, framework.m_pNotification);
        CFakeDataLayer *first = framework.Accept();
        framework.Accept(false);
        CFakeDataLayer *second = framework.Accept();
        EXPECT_EQ(std::vector<bool>({true, false, true}), framework.m_results);
        EXPECT_EQ(2u, layer.GetConnectionPointCount());

        first->Arrive(c_getRoot);
        first->DeliverData();
        second->Arrive(c_getRoot);
        second->DeliverData();
        EXPECT_EQ(std::vector<int>({1, 2}), handler.ProcessIDs());

        // A closed connection leaves the table; its ID is not handed out again.
        first->DeliverClose();
        EXPECT_EQ(1u, layer.GetConnectionPointCount());
        EXPECT_EQ(nullptr, first->m_pNotification) << "destroyed at once, unregistering";
        CFakeDataLayer *third = framework.Accept();
        third->Arrive(c_getRoot);
        third->DeliverData();
        EXPECT_EQ(std::vector<int>({1, 2, 3}), handler.ProcessIDs());
    }
    EXPECT_EQ(1, framework.m_unregistrations);
    EXPECT_EQ(nullptr, framework.m_accepted[2]->m_pNotification)
        << "the layer released its connection points";

    const std::string created = "8 NewConnectionRequested HTTPLayer : create connection point "
                                "(192.0.2.1:5000)->(192.0.2.2:7070)";
    std::vector<std::string> expected = {created, created,
                                         "1 NewConnectionRequested HTTPLayer : create connection "
                                         "point failed",
                                         created, created};
    std::vector<std::string> logged;
    for (const std::string &message : log.Messages()) {
        if (message.find("create connection point") != std::string::npos)
            logged.push_back(message);
    }
    EXPECT_EQ(expected, logged);
}

TEST(HTTPLayerTest, MultiPointCloseLeavesTheTableAlone)
{
    CFakeMultiPointLayer framework;
    NVQ::CHTTPLayer layer(framework);
    CFakeDataLayer *accepted = framework.Accept();
    framework.m_pNotification->OnConnectionClosed(*accepted, framework.m_remote, framework.m_local);
    EXPECT_EQ(1u, layer.GetConnectionPointCount());
}

TEST(HTTPLayerTest, DetachedStreamLeavesTheTableAtOnce)
{
    CFakeMultiPointLayer framework;
    CScriptedHandler handler;
    handler.StreamPieces({"a", "b"});
    NVQ::CHTTPLayer layer(framework);
    layer.RegisterHandler(handler, false);
    CFakeDataLayer *accepted = framework.Accept();
    accepted->Arrive(c_getRoot);
    accepted->DeliverData();
    EXPECT_EQ(1, accepted->m_closes);
    EXPECT_EQ(0u, layer.GetConnectionPointCount());
}

TEST(HTTPLayerTest, RegistryOrderAndRemoval)
{
    NVQ::CHTTPLayer layer;
    CScriptedHandler x("/");
    CScriptedHandler y("/");
    CScriptedHandler z("/");
    NVQ::CHTTPRequest request;
    request.SetUri("/a");

    layer.RegisterHandler(x, false);
    layer.RegisterHandler(y, false);
    layer.RegisterHandler(z, true);
    EXPECT_EQ(&z, layer.FindHandler(request));
    EXPECT_TRUE(layer.UnregisterHandler(z));
    EXPECT_EQ(&x, layer.FindHandler(request));

    layer.RegisterHandler(y, false); // y now stands twice, behind x
    EXPECT_TRUE(layer.UnregisterHandler(x));
    EXPECT_EQ(&y, layer.FindHandler(request));
    EXPECT_TRUE(layer.UnregisterHandler(y));
    EXPECT_TRUE(layer.UnregisterHandler(y));
    EXPECT_FALSE(layer.UnregisterHandler(y));
    EXPECT_FALSE(layer.UnregisterHandler(z)) << "never registered any more";
}

TEST(HTTPLayerTest, NoHandlerIsLoggedAtLevelEight)
{
    NVQ::CHTTPLayer layer;
    CCapturingDevice log;
    NVQ::CHTTPRequest request;
    request.SetUri("/");
    EXPECT_EQ(nullptr, layer.FindHandler(request));
    const std::vector<std::string> messages = log.Messages();
    ASSERT_EQ(1u, messages.size());
    EXPECT_EQ("8 FindHandler HTTPLayer - no handler for request.", messages[0]);
}

} // namespace
