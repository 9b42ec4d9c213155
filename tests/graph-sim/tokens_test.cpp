// Renewal and device-code sign-in.
#include "sim_fixture.h"

#include <gmock/gmock.h>

namespace graph_sim {

namespace {

json post(sim &service, const std::string &path, const std::string &form, unsigned status)
{
    const response reply =
        service.send("POST", path, {{"Content-Type", "application/x-www-form-urlencoded"}}, form)
            .reply;
    EXPECT_EQ(reply.status, status) << reply.body;
    return json::parse(reply.body, path);
}

json renew(sim &service, const std::string &token, unsigned status = 200,
           const std::string &tenant = "common")
{
    return post(service, "/" + tenant + "/oauth2/v2.0/token",
                "grant_type=refresh_token&client_id=app&refresh_token=" + percent_encode(token),
                status);
}

std::string error_of(const json &body)
{
    return std::string(body.at("error").as_text());
}

json claims(const json &answer)
{
    const auto parts = split(answer.at("id_token").as_text(), '.');
    return json::parse(base64url_decode(parts.at(1)).value_or(""), "id_token");
}

// A sign-in that has been begun.
struct sign_in {
    explicit sign_in(sim &service_) : service(service_)
    {
        begun = post(service, "/common/oauth2/v2.0/devicecode",
                     "client_id=app&scope=Files.ReadWrite.All%20offline_access%20openid", 200);
    }
    json poll(unsigned status) const
    {
        return post(
            service, "/common/oauth2/v2.0/token",
            "grant_type=urn:ietf:params:oauth:grant-type:device_code&client_id=app&device_code=" +
                std::string(begun.at("device_code").as_text()),
            status);
    }
    sim &service;
    json begun;
};

} // namespace

TEST(Renewal, GivesAnAccessTokenThatWorksAndANewRefreshToken)
{
    sim service;
    const json got = renew(service, "alice-refresh");
    EXPECT_EQ(got.at("expires_in").as_integer(), 3599);
    EXPECT_EQ(got.at("token_type").as_text(), "Bearer");
    EXPECT_THAT(std::string(got.at("scope").as_text()),
                testing::Not(testing::HasSubstr("offline_access")));
    const header_list bearer{
        {"Authorization", "Bearer " + std::string(got.at("access_token").as_text())}};
    const response me = service.send("GET", "/v1.0/me", bearer).reply;
    EXPECT_THAT(me.body, testing::HasSubstr("alice@contoso.example"));
    const std::string next(got.at("refresh_token").as_text());
    EXPECT_NE(next, "alice-refresh");
    renew(service, next);
}

TEST(Renewal, TheOldRefreshTokenWorksOnUnlessSwitchedOff)
{
    sim service;
    renew(service, "alice-refresh");
    renew(service, "alice-refresh");
    service.control("POST", "settings", R"({"old_refresh_token_works": false})");
    EXPECT_EQ(error_of(renew(service, "alice-refresh", 400)), "invalid_grant");
}

TEST(Renewal, AShortLifetimeIsTold)
{
    sim service;
    service.control("POST", "settings", R"({"token_lifetime_s": 0})");
    const json got = renew(service, "alice-refresh");
    EXPECT_EQ(got.at("expires_in").as_integer(), 0);
    EXPECT_EQ(
        service
            .send("GET", "/v1.0/me",
                  {{"Authorization", "Bearer " + std::string(got.at("access_token").as_text())}})
            .reply.status,
        401U);
}

TEST(Renewal, RefusesWhatItDoesNotKnow)
{
    sim service;
    const json unknown = renew(service, "nonsense", 400);
    EXPECT_EQ(error_of(unknown), "invalid_grant");
    EXPECT_THAT(std::string(unknown.at("error_description").as_text()),
                testing::StartsWith("AADSTS70000: "));
    EXPECT_EQ(json_integer_value(json_array_get(unknown.at("error_codes").get(), 0)), 70000);
    service.control("POST", "token", R"({"revoke_refresh": "alice"})");
    EXPECT_EQ(error_of(renew(service, "alice-refresh", 400)), "invalid_grant");
    EXPECT_EQ(error_of(renew(service, "bob-refresh", 400, "no-such-tenant")), "invalid_request");
    EXPECT_EQ(error_of(renew(service, "bob-refresh", 400, "organizations")), "invalid_grant");
    renew(service, "bob-refresh", 200, "consumers");
    EXPECT_EQ(error_of(post(service, "/common/oauth2/v2.0/token",
                            "grant_type=refresh_token&refresh_token=x", 400)),
              "invalid_request");
    EXPECT_EQ(error_of(post(service, "/common/oauth2/v2.0/token",
                            "grant_type=password&client_id=app", 400)),
              "unsupported_grant_type");
    EXPECT_EQ(service.send("GET", "/common/oauth2/v2.0/token").reply.status, 405U);
}

TEST(Renewal, TheIdTokenNamesAccountAndTenant)
{
    sim service;
    const json work = claims(renew(service, "alice-refresh"));
    EXPECT_EQ(work.at("sub").as_text(), "alice-sub");
    EXPECT_EQ(work.at("tid").as_text(), work_tenant);
    EXPECT_EQ(work.at("aud").as_text(), "app");
    EXPECT_EQ(claims(renew(service, "bob-refresh")).at("tid").as_text(), consumer_tenant);
}

TEST(DeviceCode, IsPendingUntilItIsApproved)
{
    sim service;
    const sign_in started(service);
    EXPECT_EQ(started.begun.at("interval").as_integer(), 5);
    EXPECT_EQ(started.begun.at("verification_uri").as_text(), "http://graph.test/__sim/device");
    EXPECT_THAT(std::string(started.begun.at("message").as_text()),
                testing::HasSubstr(std::string(started.begun.at("user_code").as_text())));
    EXPECT_EQ(error_of(started.poll(400)), "authorization_pending");
    service.control("POST", "device", R"({"account": "bob"})");
    const json got = started.poll(200);
    EXPECT_TRUE(got.at("refresh_token"));
    EXPECT_EQ(claims(got).at("sub").as_text(), "bob-sub");
    EXPECT_EQ(error_of(started.poll(400)), "bad_verification_code") << "a code is good once";
}

TEST(DeviceCode, CanBeDeclinedExpireAndSlowDown)
{
    sim service;
    const sign_in first(service);
    service.control("POST", "device", R"({"action": "slow_down", "count": 2})");
    EXPECT_EQ(error_of(first.poll(400)), "slow_down");
    EXPECT_EQ(error_of(first.poll(400)), "slow_down");
    EXPECT_EQ(error_of(first.poll(400)), "authorization_pending");
    service.control("POST", "device", R"({"action": "decline"})");
    EXPECT_EQ(error_of(first.poll(400)), "authorization_declined");
    const sign_in second(service);
    service.control("POST", "device", R"({"action": "expire"})");
    EXPECT_EQ(error_of(second.poll(400)), "expired_token");
}

TEST(DeviceCode, AnApprovalCanTakeEffectLater)
{
    sim service;
    service.control("POST", "settings", R"({"device_code_pending": 2})");
    const sign_in started(service);
    service.control("POST", "device", R"({"account": "alice"})");
    EXPECT_EQ(error_of(started.poll(400)), "authorization_pending");
    EXPECT_EQ(error_of(started.poll(400)), "authorization_pending");
    EXPECT_TRUE(started.poll(200).at("access_token"));
}

TEST(DeviceCode, APersonCanApproveInABrowser)
{
    sim service;
    const sign_in started(service);
    const response page = service.send("GET", "/__sim/device", {{"Accept", "text/html,*/*"}}).reply;
    EXPECT_THAT(page.body, testing::AllOf(testing::HasSubstr("<form"),
                                          testing::HasSubstr("<option>alice</option>")));
    const response sent =
        service
            .send("POST", "/__sim/device", {{"Content-Type", "application/x-www-form-urlencoded"}},
                  "user_code=" + std::string(started.begun.at("user_code").as_text()) +
                      "&account=alice&action=approve")
            .reply;
    EXPECT_EQ(sent.status, 200U);
    started.poll(200);
}

TEST(DeviceCode, AnotherClientCannotRedeemIt)
{
    sim service;
    const sign_in started(service);
    service.control("POST", "device", R"({"account": "alice"})");
    EXPECT_EQ(error_of(post(service, "/common/oauth2/v2.0/token",
                            "grant_type=device_code&client_id=other&device_code=" +
                                std::string(started.begun.at("device_code").as_text()),
                            400)),
              "bad_verification_code");
}

} // namespace graph_sim
