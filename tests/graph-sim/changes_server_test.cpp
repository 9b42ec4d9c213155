// Changes of items over sockets.
#include "server_fixture.h"

#include <gtest/gtest.h>

namespace graph_sim {

TEST_F(Server, AFolderIsMadeRenamedAndDeletedOverOneConnection)
{
    start();
    http_client client;
    const std::vector<std::string> headers{bearer, "Content-Type: application/json"};
    const std::string root = base + "/v1.0/me/drive/root";

    http_answer got =
        client.send("POST", root + "/children", headers, R"({"name": "new", "folder": {}})");
    EXPECT_EQ(got.status, 201);
    EXPECT_EQ(got.connections, 1);
    const std::string id(json::parse(got.body, "made").at("id").as_text());

    got = client.send("PATCH", base + "/v1.0/me/drive/items/" + id, headers,
                      "{\"name\": \"gr\u00F6\u00DFer\"}");
    EXPECT_EQ(got.status, 200);
    EXPECT_EQ(got.connections, 0);

    got = client.get(root + ":/GRO%CC%88%C3%9FER", {bearer});
    EXPECT_EQ(json::parse(got.body, "item").at("id").as_text(), id);

    got = client.send("DELETE", base + "/v1.0/me/drive/items/" + id, {bearer}, "");
    EXPECT_EQ(got.status, 204);
    EXPECT_EQ(got.body, "");
    EXPECT_EQ(got.headers.count("content-length"), 0U);
    got = client.send("DELETE", base + "/v1.0/me/drive/items/" + id, {bearer}, "");
    EXPECT_EQ(got.status, 404);
    EXPECT_EQ(got.connections, 0) << "the connection was good for another request";
}

} // namespace graph_sim
